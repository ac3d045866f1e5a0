/*
 * travik - diagnostics, per-user directories and character sets.
 */
#ifndef TRAVIK_SYSTEM_H
#define TRAVIK_SYSTEM_H

#include <pthread.h>
#include <travik/common.h>

TRAVIK_BEGIN_DECLS

/*
 * Diagnostics, all on stderr. The *_detail forms print one line
 * "(!!!)  *** WARNING [message] *** [source:line in function ()]";
 * the critical forms abort the process after printing.
 */
TRAVIK_API void travik_warning(const char *format, ...)
    __attribute__((format(printf, 1, 2)));
TRAVIK_API void travik_critical(const char *format, ...)
    __attribute__((format(printf, 1, 2), noreturn));
TRAVIK_API void travik_warning_detail(const char *function, const char *source,
                                      int32_t line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));
TRAVIK_API void travik_critical_detail(const char *function, const char *source,
                                       int32_t line, const char *format, ...)
    __attribute__((format(printf, 4, 5), noreturn));

/*
 * Directories. Each is computed on first use and kept in a static buffer;
 * the first call must not race with another.
 *   travik_homedir:   $HOME (or "/tmp/") with a trailing "/".
 *   travik_basedir:   "<home>/.travik/", created with mode 0700 if missing.
 *   travik_plugindir: $TRAVIK_PLUGINS_DIR when set; otherwise the user's
 *                     "<base>/plugins/" when `user` is non-zero, else the
 *                     compiled-in plugin directory.
 */
TRAVIK_API const char *travik_homedir(void);
TRAVIK_API const char *travik_basedir(void);
TRAVIK_API const char *travik_plugindir(int32_t user);

/*
 * Character sets. travik_parse_charset maps a locale name to a charset name
 * (the text after ".", or a small table of CJK locales, else "ASCII").
 * travik_local_charset uses $LANG; travik_charset prefers $TRAVIK_LANG.
 */
TRAVIK_API const char *travik_parse_charset(const char *locale);
TRAVIK_API const char *travik_local_charset(void);
TRAVIK_API const char *travik_charset(void);

/*
 * Converts `length` bytes of `text` to (encode) or from (decode) UTF-8.
 * On success returns 1, stores a new buffer in *out (free() it) followed by
 * two zero bytes, and the converted byte count in *out_length. Returns 0 and
 * allocates nothing on an unknown charset or any conversion error.
 */
TRAVIK_API int travik_utf8_encode(const char *from_charset, const char *text,
                                  int32_t length, char **out, int32_t *out_length);
TRAVIK_API int travik_utf8_decode(const char *to_charset, const char *text,
                                  int32_t length, char **out, int32_t *out_length);

/* Length of a UTF-8 sequence by its lead byte's low six bits (leads >= 0xC0). */
TRAVIK_API extern const uint8_t UTF8_SKIP_TABLE[64];

/* A process-wide mutex for applications and plugins; the library never takes it. */
TRAVIK_API extern pthread_mutex_t travik_global_lock;

TRAVIK_END_DECLS

#endif /* TRAVIK_SYSTEM_H */
