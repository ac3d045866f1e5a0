/*
 * travik - subtitles: subtitle sources and the driver record of subtitle plugins.
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

/*
 * The entry a driver's `parse` hands out: the text to show from `time` on.
 *
 * Whoever receives an entry owns it and frees it through its `release`
 * only, from any thread, also after the driver has been closed and its
 * plugin unloaded. Drivers therefore make entries with
 * travik_subtitle_entry_create(), whose release function lives in the
 * library (a release function inside a plugin would be unloaded with it).
 * An entry with `count` 0 clears the screen: drivers hand one out at a
 * cue's end time when the next cue starts later. Line texts are UTF-8
 * without markup; `length` is in bytes, and a terminating 0 follows.
 */
typedef struct travik_subtitle_line {
  const char *text;
  int32_t length;
} travik_subtitle_line;

typedef struct travik_subtitle_entry travik_subtitle_entry;
struct travik_subtitle_entry {
  int64_t time;                 /* microseconds from the start of the movie */
  int32_t count;                /* number of lines, 0 for "nothing shown" */
  travik_subtitle_line *lines;  /* `count` lines, top first */
  void (*release)(travik_subtitle_entry *entry);
};

/* Makes an entry in one block holding the record, the line array and a
 * terminated copy of every line's text. */
TRAVIK_API travik_subtitle_entry *travik_subtitle_entry_create(int64_t time, int32_t count,
                                                               const travik_subtitle_line *lines);

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
  /* Stores the next entry to display (a travik_subtitle_entry *) in *item,
   * or leaves it NULL when there is none. */
  int32_t (*parse)(void *state, void **item);
  int32_t (*seek)(void *state, int64_t position); /* microseconds */
  int32_t (*getlangindex)(void *state);
} travik_subtitle_driver;

/* A subtitle source: the driver chosen for it and the driver's state. */
typedef struct travik_subtitle travik_subtitle;
struct travik_subtitle {
  travik_plugin *plugin;                 /* NULL when the driver was handed in */
  const travik_subtitle_driver *driver;
  void *state;
};

/* Refresh (at travik_init) and release (at travik_destroy) the subtitle
 * cache <base dir>/subtitle.cfg. Both return 0. */
TRAVIK_API int travik_subtitle_plugins_init(void);
TRAVIK_API int travik_subtitle_plugins_destroy(void);

/*
 * Opens a subtitle source. With `driver` NULL, the first driver of every
 * subtitle plugin probes `source` (a subtitle file's path or URL, or a
 * movie's URL beside which the driver looks) and the highest score wins;
 * the losers are unloaded at once. Returns NULL when no driver scores above
 * 0 or the driver's `open` fails.
 */
TRAVIK_API travik_subtitle *travik_subtitle_create(const char *source,
                                                   const travik_subtitle_driver *driver);
/* Closes the driver, unloads its plugin and frees the record. */
TRAVIK_API void travik_subtitle_destroy(travik_subtitle *subtitle);

/* The driver's operations, called with its state; they return its result. */
TRAVIK_API int32_t travik_subtitle_getlangcount(travik_subtitle *subtitle);
TRAVIK_API const char *travik_subtitle_getlangname(travik_subtitle *subtitle, int32_t index);
TRAVIK_API int32_t travik_subtitle_setlang(travik_subtitle *subtitle, int32_t index);
TRAVIK_API int32_t travik_subtitle_getlangindex(travik_subtitle *subtitle);
/* Stores the next entry (travik_subtitle_entry *) in *item, or leaves it as it is. */
TRAVIK_API int32_t travik_subtitle_parse(travik_subtitle *subtitle, void **item);
/* Positions the source at `position` milliseconds (handed to the driver in
 * microseconds) so that the next parse gives the entry shown then, or the
 * next one. */
TRAVIK_API int32_t travik_subtitle_seek(travik_subtitle *subtitle, int32_t position);

TRAVIK_END_DECLS

#endif /* TRAVIK_SUBTITLE_H */
