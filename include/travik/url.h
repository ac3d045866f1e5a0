/*
 * travik - URL splitting and small text tokenisers.
 *
 * A URL is either a plain file name or
 *   scheme://[user@]host[:port][/path[?options]]
 * (a single slash after the colon is accepted too). travik_url_init splits
 * the text once; the text fields point into the record's own working copy.
 */
#ifndef TRAVIK_URL_H
#define TRAVIK_URL_H

#include <travik/common.h>

TRAVIK_BEGIN_DECLS

typedef struct travik_url {
  char *full;         /* owned, unchanged copy of the whole text */
  const char *scheme; /* "file" for a plain name; NULL when there is no path either */
  const char *user;   /* text before "@" in the authority, or NULL */
  const char *host;   /* the host (possibly empty), or NULL for a plain name */
  const char *path;   /* after the "/" that ends the authority (that slash
                         not included), options included; a plain name whole */
  int32_t port;       /* -1 when the text has none; an empty or bad port is 0 */
  char *extension;    /* owned; letters and digits after the last "." of the
                         path's last component (query included), or NULL */
  char *work;         /* owned working copy cut into the fields above */
} travik_url;

/* Fills `url` from `text` (NULL is taken as ""). Never fails. */
TRAVIK_API void travik_url_init(travik_url *url, const char *text);
/* Frees full, work and extension and clears them; `url` itself is not freed. */
TRAVIK_API void travik_url_destroy(travik_url *url);
/*
 * Looks up option `name` after the "?" of the path. Returns 1 when found,
 * 0 otherwise. Each parsed value is copied to `value` ("+" becomes a space,
 * at most size - 1 characters, then a terminator; nothing is written when
 * size is 0), including the values of keys that do not match. Keys are
 * compared on their first 127 characters. A key without "=" matches and
 * leaves `value` as it was.
 */
TRAVIK_API int travik_url_findtag(const travik_url *url, const char *name, char *value,
                                  uint32_t size);

/*
 * Skips leading white space and copies the next white-space-delimited word
 * (at most size - 1 characters; the rest of a longer word is skipped; the
 * word is terminated when size > 0). Returns the position after the word.
 */
TRAVIK_API const char *travik_parse_word(const char *text, char *word, int32_t size);
/*
 * Same, but the word runs up to the first character found in `delimiters`
 * (white space inside it is kept). Returns the position of that delimiter
 * (or of the end of the text).
 */
TRAVIK_API const char *travik_parse_word2(const char *text, char *word, int32_t size,
                                          const char *delimiters);
/*
 * Returns a malloc()ed copy of field `index` (from 0) of `text` split at
 * the string `separator`, or NULL when there are fewer fields or index is
 * negative. When `rest` is given it receives the position just after the
 * separator that ended the field, or NULL for the last field.
 */
TRAVIK_API char *travik_strdup_token(const char *text, const char *separator, int32_t index,
                                     const char **rest);

TRAVIK_END_DECLS

#endif /* TRAVIK_URL_H */
