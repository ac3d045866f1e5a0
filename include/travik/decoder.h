/*
 * travik - decoders: the driver record of decoder plugins.
 *
 * A decoder plugin is a shared object <plugin dir>/decoder/libdecoder_<name>.so
 * whose only exported symbol is its entry function travik_decoder_<name>().
 * The entry function registers a table of driver records:
 *
 *   static const travik_decoder_driver drivers[] = {
 *     {"Example decoder", EXAMPLE_CODEC, 10, example_open, example_close,
 *      example_decode, example_reset},
 *     {NULL}
 *   };
 *   TRAVIK_PLUGIN_EXPORT void travik_decoder_example(void) {
 *     travik_plugin_register(TRAVIK_PLUGIN_DECODER, TRAVIK_PLUGIN_VERSION,
 *                            (void *)drivers);
 *   }
 *
 * What each driver offers (description and codec number) is kept in the
 * decoder cache <base dir>/decoder.cfg; a decoder is chosen by the stream's
 * codec number and the drivers' priorities. A decoder can also be asked for
 * by name: "<name>" selects the file libdecoder_<name>.so.
 * See README.md, "Writing plugins".
 */
#ifndef TRAVIK_DECODER_H
#define TRAVIK_DECODER_H

#include <travik/common.h>
#include <travik/plugin.h>

TRAVIK_BEGIN_DECLS

struct travik_decoder;

/* One driver of a decoder plugin's table; a NULL description ends the table. */
typedef struct travik_decoder_driver {
  /* Names the driver (printed when it is chosen); NULL ends the table. */
  const char *description;
  /* The codec number handled; kept in the cache as "%08x". */
  int32_t codec;
  /* Constant score among drivers of one codec: above 0 to be eligible,
   * higher wins, ties go to the plugin listed first in the cache. */
  int32_t priority;
  /* Returns the private state, or NULL when this stream cannot be decoded. */
  void *(*open)(struct travik_decoder *decoder);
  void (*close)(void *state);
  /* Consumes at most `size` bytes of `data` and may store one frame (a
   * travik_videoframe or travik_audioframe) in *frame. Returns the bytes
   * consumed (0 or more), or a negative value on error or when nothing is
   * left to do with this packet. It is also called with size 0 so that a
   * driver can flush; it must then answer with a frame or a negative value. */
  int32_t (*decode)(void *state, uint8_t *data, int32_t size, void *argument, void **frame);
  /* Forgets buffered data (after a seek). */
  void (*reset)(void *state);
} travik_decoder_driver;

/* Refresh (at travik_init) and release (at travik_destroy) the decoder
 * cache <base dir>/decoder.cfg: one section per plugin file with "Count",
 * "Description[i]" and "Codec[i]". Both return 0. */
TRAVIK_API int travik_decoder_plugins_init(void);
TRAVIK_API int travik_decoder_plugins_destroy(void);

TRAVIK_END_DECLS

#endif /* TRAVIK_DECODER_H */
