/*
 * travik - INI configuration documents.
 *
 * A configuration is an ordered list of named sections, each an ordered list
 * of key/value entries. Duplicates are kept; every lookup finds the first.
 * Lines are read with a 2048-byte buffer; "#" starts a comment only in the
 * first column; "[name]" starts a section; "key = value" adds an entry.
 * Arrays are stored as numbered keys: "Count" and "Name[0]", "Name[1]", ...
 */
#ifndef TRAVIK_CONFIG_H
#define TRAVIK_CONFIG_H

#include <travik/common.h>

TRAVIK_BEGIN_DECLS

typedef struct travik_config travik_config;

/* Creates a configuration and loads `path` (may be NULL) into it; a missing
 * file gives an empty configuration. Never returns NULL. */
TRAVIK_API travik_config *travik_config_create(const char *path);
TRAVIK_API void travik_config_destroy(travik_config *config);
/* Appends what `path` (or the stored path when NULL) holds; 1, or 0 when
 * the file cannot be read. */
TRAVIK_API int travik_config_load(travik_config *config, const char *path);
/* Writes through "<path>.new" and a rename; see the README for the results. */
TRAVIK_API int travik_config_save(travik_config *config, const char *path);
TRAVIK_API const char *travik_config_read(travik_config *config, const char *section,
                                          const char *key, const char *fallback);
TRAVIK_API void travik_config_write(travik_config *config, const char *section,
                                    const char *key, const char *value);
TRAVIK_API void travik_config_removeentry(travik_config *config, const char *section,
                                          const char *key);
TRAVIK_API void travik_config_removesection(travik_config *config, const char *section);
TRAVIK_API void travik_config_clear(travik_config *config);

TRAVIK_END_DECLS

#endif /* TRAVIK_CONFIG_H */
