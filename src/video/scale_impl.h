// Row gathering for the optimised scalers: out[i] = row[columns[i]].
#pragma once

#include <cstdint>
#include <vector>

namespace travik_video {

// Destination columns in blocks of 16. A block whose 16 source columns lie
// within 32 bytes of its first one (and within the row) is gathered with two
// byte shuffles; other blocks, and a last partial block, byte by byte.
struct GatherBlock {
  int32_t base;  // first source column; -1: gather byte by byte
  uint8_t low[16];
  uint8_t high[16];
};
struct GatherPlan {
  std::vector<int32_t> columns;
  std::vector<GatherBlock> blocks;
  bool vector = false;  // the shuffles are available
};

// `limit`: bytes of a source row that may be read.
void plan_gather(GatherPlan *plan, const int32_t *columns, int32_t count, int32_t limit);
void gather_row(const GatherPlan *plan, uint8_t *out, const uint8_t *row);

}  // namespace travik_video

namespace travik_video {
void scale_plane_reference(int32_t sw, int32_t sh, int32_t dw, int32_t dh, uint8_t *dst,
                           int32_t dst_pitch, const uint8_t *src, int32_t src_pitch);
void scale_yuv_reference(int32_t sw, int32_t sh, int32_t dw, int32_t dh, uint8_t *const dst[3],
                         const int32_t dst_pitches[3], uint8_t *const src[3],
                         const int32_t src_pitches[3]);
}  // namespace travik_video
