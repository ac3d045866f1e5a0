// Direct rendering: libavcodec decodes a picture straight into a frame of
// the decoder's allocator (in the player, a picture buffer of the video
// device), so that the picture needs no copy on its way out.
//
// Only pictures that libavcodec does not keep as references are lent this
// way. Video filters draw into the frames they are given (subtitles), which
// must not reach a picture later pictures are predicted from; and a
// reference stays with libavcodec for many pictures, while the frame pool is
// small. Every other picture goes to libavcodec's own buffers and is copied
// once into a frame of the allocator.
//
// The allocator is only ever called on the decoding thread, inside a decode
// call, where the frame pool expects to be asked and may block: before a
// packet goes to libavcodec one frame is taken into reserve, and the
// get_buffer2 callback (run by libavcodec's frame threads as well) only
// hands out that reserve, never waiting. At most two frames are lent out or
// in reserve at a time: the pool keeps two frames beyond the decode pass's
// limit for frames the decoder keeps. That spares the pool only when its
// limit is 4 or more (the output holds the picture on screen until the next
// one comes, and the decode pass waits once the limit is reached): with a
// smaller pool the application sets TRAVIK_DECODER_DIRECT=0, which turns
// lending off.
//
// A lent frame is asked of the allocator at the size libavcodec writes
// (avcodec_align_dimensions2 of the coded size) and handed out at the
// picture's own size; it goes back to the allocator at the size it was made
// at, once both libavcodec and every holder of the frame have let it go.
// Frames that pictures are copied into are asked at that size as well (the
// allocator's frames thus keep one size and are not made again) and go back
// the same way.
#pragma once

#include <travik/decoder.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <atomic>
#include <mutex>

namespace ffdirect {

struct Lent;

// Where libavcodec writes a picture of a coded size: the padded size it asks
// for, the line pitches and the alignment of planes. The pitches are the
// same for every picture of that size, whether it lives in a lent frame or
// in the decoder's own buffers, since a picture is predicted from others
// with its own pitches. Chroma lines are half the luma lines, as in
// libavcodec's own buffers, both on the alignment libavcodec asks for.
struct Geometry {
  int32_t coded_width = 0, coded_height = 0;
  int width = 0, height = 0;
  int32_t pitches[3] = {0, 0, 0};
  int align = 16;

  bool same_size(const Geometry &other) const {
    return coded_width == other.coded_width && coded_height == other.coded_height;
  }
};

// The lending state of one video decoder.
struct Direct {
  travik_decoder *decoder = nullptr;
  std::mutex lock;                  // guards `reserve` and the unfit size
  Lent *reserve = nullptr;          // a frame waiting for the next picture
  std::atomic<int32_t> held{0};     // frames in reserve or held by libavcodec
  int32_t unfit_width = 0;          // a coded size the allocator's frames did
  int32_t unfit_height = 0;         // not fit: not asked again
  int32_t direct = 0;               // pictures handed out without a copy
  int32_t copied = 0;               // pictures copied into a frame
  AVBufferPool *pool = nullptr;     // the decoder's own 4:2:0 buffers,
  Geometry pool_geometry;           // of this geometry
};

// Installs the get_buffer2 callback on a codec context before it is opened.
void install(Direct *direct, AVCodecContext *ctx);

// Decoding thread, before a packet is sent: takes a frame into reserve when
// none waits and the limit allows.
void prepare(Direct *direct, AVCodecContext *ctx);

// A frame to copy a picture into, of the template's size, time and info.
// While pictures are lent, it is asked at the lent frames' padded size too,
// so that the allocator's frames keep one size whichever way they serve.
travik_videoframe *allocate(Direct *direct, AVCodecContext *ctx, travik_videoframe *templ);

// The frame a decoded picture was rendered into, ready to be handed out
// with the given size, time and info; null when the picture lives in
// libavcodec's own buffers (or was cropped away from the frame's origin).
travik_videoframe *take(const AVFrame *picture, int32_t width, int32_t height, int64_t timestamp,
                        uint32_t info);

// After the codec context is freed: gives the reserve back, and prints the
// counts on the standard error stream when TRAVIK_DEBUG is set.
void finish(Direct *direct);

}  // namespace ffdirect
