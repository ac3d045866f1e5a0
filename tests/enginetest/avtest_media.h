// The synthetic media of the "avtest" demuxer, shared by the plugin and the
// tests that check what the outputs received.
//
// An avtest input is a small text file whose first line reads
//   AVTEST key=value key=value ...
// with these keys (defaults in brackets):
//   seconds   length of the input in milliseconds of media [2000]
//   audio     1 for an audio stream of 16-bit PCM [1]
//   video     1 for a video stream of raw 4:2:0 pictures [1]
//   rate      audio sample rate [8000]
//   channels  audio channels [2]
//   chunk     milliseconds of audio in one packet [40]
//   width, height  picture size, even [64 x 48]
//   fps       frames per second, whole [25]
//   preroll   the demuxer's fixed preroll in milliseconds [200]
//   header_error  non-zero: the header parse fails with this result [0]
//   error_at  media time (ms) from which parsing fails [-1: never]
//   error_code  the result of that failure [5]
//   empty     1: after the header, every parse succeeds with no packet [0]
//   stall_at, stall_for  at media time stall_at (ms) parsing delivers no
//             packet for stall_for milliseconds of wall time, then resumes
//             [-1, 0]
//   realtime  percent of real time at which packets are delivered; 0 for
//             as fast as asked [0]
// The "seconds" key counts milliseconds so that inputs shorter than one
// second can be described.
#pragma once

#include <stdint.h>

namespace avtest {

// Value of channel `channel` of sample frame `n` (counted from the start of
// the input).
inline int16_t sample(int64_t n, int32_t channel) {
  return static_cast<int16_t>(static_cast<uint16_t>(n * 97 + channel * 4099 + (n >> 7)));
}

// Bytes of picture `frame`: the luma plane, then the two chroma planes of
// (width / 2) x (height / 2), each row after row without padding.
inline uint8_t luma(int64_t frame, int32_t x, int32_t y) {
  return static_cast<uint8_t>(frame * 3 + x + 2 * y);
}
inline uint8_t chroma(int64_t frame, int32_t plane, int32_t x, int32_t y) {
  return static_cast<uint8_t>(frame * (plane ? 7 : 5) + x * (plane + 1) + y);
}

// The frame index encoded in a picture: its luma at (0, 0), modulo 256.
inline int32_t frame_of(uint8_t luma_at_origin) { return (luma_at_origin * 171) & 0xFF; }

}  // namespace avtest
