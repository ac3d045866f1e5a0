/*
 * An example demuxer plugin: the smallest complete shape of a travik plugin.
 *
 * It claims inputs with the extension "exmp" (as in clip.exmp), declares no
 * streams and produces no packets: a real demuxer reads its container
 * through the travik I/O handle it is given, declares streams from
 * parseheader and hands out one packet per parse call.
 *
 * Rules every plugin follows:
 *  - the file is lib<kind>_<name>.so and exports exactly one function,
 *    travik_<kind>_<name>, marked TRAVIK_PLUGIN_EXPORT (everything else is
 *    hidden by travik_add_plugin);
 *  - that function calls travik_plugin_register() with the kind, the
 *    interface version and a table of driver records ended by a record
 *    whose description is NULL; it must do so on the calling thread,
 *    before returning;
 *  - the table (and every string in it) stays valid while the plugin is
 *    loaded: make it static;
 *  - extensions are lower case, separated by commas, without blanks.
 */
#include <stdlib.h>
#include <travik/demuxer.h>

typedef struct example_state {
  int32_t index; /* which driver of the table was chosen */
} example_state;

/* Called for each candidate input whose extension this driver lists. A real
 * driver reads the first bytes of `input` and checks a signature; the input
 * is rewound to its start between drivers. */
static int32_t example_probe(struct travik_io *input, int32_t index) {
  (void)input;
  (void)index;
  return 10;
}

static void *example_open(struct travik_demuxer *demuxer, int32_t index) {
  (void)demuxer;
  example_state *state = calloc(1, sizeof *state);
  if (state) state->index = index;
  return state;
}

static void example_close(void *state) { free(state); }

/* Reads the container header and declares the streams: 0 on success. */
static int32_t example_parseheader(void *state) {
  (void)state;
  return 0;
}

/* Produces at most one packet; a non-zero status marks the end of input. */
static int32_t example_parse(void *state, struct travik_packet **packet) {
  (void)state;
  *packet = NULL;
  return 1;
}

static int32_t example_seek(void *state, int64_t position, int32_t flags) {
  (void)state;
  (void)position;
  (void)flags;
  return 0;
}

static const travik_demuxer_driver example_drivers[] = {
    {"Example demuxer", "exmp", example_probe, example_open, example_close,
     example_parseheader, example_parse, example_seek, NULL},
    {NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL}};

TRAVIK_PLUGIN_EXPORT void travik_demuxer_example(void) {
  travik_plugin_register(TRAVIK_PLUGIN_DEMUXER, TRAVIK_PLUGIN_VERSION, (void *)example_drivers);
}
