/*
 * travik - subtitles: the driver record of subtitle plugins.
 *
 * A subtitle plugin is a shared object <plugin dir>/subtitle/libsubtitle_<name>.so
 * whose only exported symbol is its entry function travik_subtitle_<name>(),
 * which registers its table with
 *   travik_plugin_register(TRAVIK_PLUGIN_SUBTITLE, TRAVIK_PLUGIN_VERSION, drivers);
 *
 * Subtitle drivers are chosen by content, not by extension: the first driver
 * of every subtitle plugin is asked to probe the source (usually the movie's
 * own URL, beside which the driver looks for its file), and the highest
 * score wins. What each driver offers is kept in <base dir>/subtitle.cfg.
 * See README.md, "Writing plugins".
 */
#ifndef TRAVIK_SUBTITLE_H
#define TRAVIK_SUBTITLE_H

#include <travik/common.h>
#include <travik/plugin.h>

TRAVIK_BEGIN_DECLS

struct travik_subtitle;

/* One driver of a subtitle plugin's table; a NULL description ends the table. */
typedef struct travik_subtitle_driver {
  const char *description;                 /* NULL ends the table */
  const char *extensions;                  /* kept in the cache */
  int32_t (*probe)(const char *source);    /* above 0 when it can serve */
  void *(*open)(struct travik_subtitle *subtitle, const char *source); /* NULL on failure */
  void (*close)(void *state);
  int32_t (*getlangcount)(void *state);
  const char *(*getlangname)(void *state, int32_t index);
  int32_t (*setlang)(void *state, int32_t index);
  /* Stores the next item to display in *item, or leaves it NULL. */
  int32_t (*parse)(void *state, void **item);
  int32_t (*seek)(void *state, int64_t position); /* microseconds */
  int32_t (*getlangindex)(void *state);
} travik_subtitle_driver;

/* Refresh (at travik_init) and release (at travik_destroy) the subtitle
 * cache <base dir>/subtitle.cfg. Both return 0. */
TRAVIK_API int travik_subtitle_plugins_init(void);
TRAVIK_API int travik_subtitle_plugins_destroy(void);

TRAVIK_END_DECLS

#endif /* TRAVIK_SUBTITLE_H */
