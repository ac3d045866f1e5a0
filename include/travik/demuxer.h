/*
 * travik - demuxers: the driver record of demuxer plugins.
 *
 * A demuxer plugin is a shared object <plugin dir>/demuxer/libdemuxer_<name>.so
 * whose only exported symbol is its entry function travik_demuxer_<name>().
 * The entry function registers a table of driver records:
 *
 *   static const travik_demuxer_driver drivers[] = {
 *     {"Example demuxer", "exa,exb", example_probe, example_open, example_close,
 *      example_parseheader, example_parse, example_seek, NULL},
 *     {NULL}
 *   };
 *   TRAVIK_PLUGIN_EXPORT void travik_demuxer_example(void) {
 *     travik_plugin_register(TRAVIK_PLUGIN_DEMUXER, TRAVIK_PLUGIN_VERSION,
 *                            (void *)drivers);
 *   }
 *
 * What each driver offers (description and extensions) is kept in the
 * demuxer cache <base dir>/demuxer.cfg, so a plugin is loaded only when an
 * input it claims by extension is opened. See README.md, "Writing plugins".
 */
#ifndef TRAVIK_DEMUXER_H
#define TRAVIK_DEMUXER_H

#include <travik/common.h>
#include <travik/plugin.h>

TRAVIK_BEGIN_DECLS

struct travik_io;
struct travik_demuxer;
struct travik_packet;

/* One driver of a demuxer plugin's table; a NULL description ends the table. */
typedef struct travik_demuxer_driver {
  /* Names the driver; NULL ends the table. */
  const char *description;
  /* Comma-separated lower-case extensions (or URL schemes) handled,
   * such as "avi,divx". Matching is on whole list elements. */
  const char *extensions;
  /* Scores the input: above 0 when the driver can read it; higher wins.
   * `index` is the driver's position in its table. */
  int32_t (*probe)(struct travik_io *input, int32_t index);
  /* Returns the driver's private state for `demuxer` (NULL is accepted;
   * report failure from parseheader). */
  void *(*open)(struct travik_demuxer *demuxer, int32_t index);
  void (*close)(void *state);
  /* Reads the container header and declares the streams; 0 on success. */
  int32_t (*parseheader)(void *state);
  /* Produces at most one packet in *packet (left NULL when none); the
   * status is handed back to the caller unchanged. */
  int32_t (*parse)(void *state, struct travik_packet **packet);
  /* Seeks to `position` microseconds. */
  int32_t (*seek)(void *state, int64_t position, int32_t flags);
  /* Optional (NULL when absent): private commands from the player. */
  int32_t (*control)(void *state, int32_t command, void *argument);
} travik_demuxer_driver;

/* Refresh (at travik_init) and release (at travik_destroy) the demuxer
 * cache <base dir>/demuxer.cfg: one section per plugin file with "Count",
 * "Description[i]" and "Extensions[i]". Both return 0. */
TRAVIK_API int travik_demuxer_plugins_init(void);
TRAVIK_API int travik_demuxer_plugins_destroy(void);

TRAVIK_END_DECLS

#endif /* TRAVIK_DEMUXER_H */
