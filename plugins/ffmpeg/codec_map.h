// The codecs travik's FFmpeg plugins exchange: the library's codec number
// beside libavcodec's codec id. The demuxer names streams with it, the
// decoder opens libavcodec's decoder from it; one table keeps both sides
// in step.
#pragma once

#include <travik/codec.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace travik_ffmpeg {

struct CodecMapping {
  int32_t codec;      // TRAVIK_CODEC_*
  AVCodecID id;       // what libavcodec calls it
  const char *name;   // for driver descriptions
};

// The first row of a codec number is the id its decoder opens; further
// rows only name more container codecs with the same number.
inline constexpr CodecMapping kCodecs[] = {
    {TRAVIK_CODEC_H264, AV_CODEC_ID_H264, "H.264"},
    {TRAVIK_CODEC_HEVC, AV_CODEC_ID_HEVC, "HEVC"},
    {TRAVIK_CODEC_MPEG_VIDEO, AV_CODEC_ID_MPEG1VIDEO, "MPEG-1 video"},
    {TRAVIK_CODEC_MPEG2VIDEO, AV_CODEC_ID_MPEG2VIDEO, "MPEG-2 video"},
    {TRAVIK_CODEC_MPEG4, AV_CODEC_ID_MPEG4, "MPEG-4 part 2"},
    {TRAVIK_CODEC_VP8, AV_CODEC_ID_VP8, "VP8"},
    {TRAVIK_CODEC_VP9, AV_CODEC_ID_VP9, "VP9"},
    {TRAVIK_CODEC_AV1, AV_CODEC_ID_AV1, "AV1"},
    {TRAVIK_CODEC_MJPEG, AV_CODEC_ID_MJPEG, "Motion JPEG"},
    {TRAVIK_CODEC_THEORA, AV_CODEC_ID_THEORA, "Theora"},
    {TRAVIK_CODEC_AAC, AV_CODEC_ID_AAC, "AAC"},
    {TRAVIK_CODEC_MPEG_AUDIO, AV_CODEC_ID_MP3, "MPEG audio layer III"},
    {TRAVIK_CODEC_MP2, AV_CODEC_ID_MP2, "MPEG audio layer II"},
    {TRAVIK_CODEC_AC3, AV_CODEC_ID_AC3, "AC-3"},
    {TRAVIK_CODEC_EAC3, AV_CODEC_ID_EAC3, "E-AC-3"},
    {TRAVIK_CODEC_FLAC, AV_CODEC_ID_FLAC, "FLAC"},
    {TRAVIK_CODEC_VORBIS, AV_CODEC_ID_VORBIS, "Vorbis"},
    {TRAVIK_CODEC_OPUS, AV_CODEC_ID_OPUS, "Opus"},
    {TRAVIK_CODEC_ALAC, AV_CODEC_ID_ALAC, "ALAC"},
    {TRAVIK_CODEC_PCM_S16LE, AV_CODEC_ID_PCM_S16LE, "PCM 16-bit little-endian"},
    {TRAVIK_CODEC_PCM_S16BE, AV_CODEC_ID_PCM_S16BE, "PCM 16-bit big-endian"},
    {TRAVIK_CODEC_PCM_U8, AV_CODEC_ID_PCM_U8, "PCM 8-bit unsigned"},
    {TRAVIK_CODEC_PCM_S8, AV_CODEC_ID_PCM_S8, "PCM 8-bit signed"},
    {TRAVIK_CODEC_PCM_S24LE, AV_CODEC_ID_PCM_S24LE, "PCM 24-bit little-endian"},
    {TRAVIK_CODEC_PCM_S24BE, AV_CODEC_ID_PCM_S24BE, "PCM 24-bit big-endian"},
    {TRAVIK_CODEC_PCM_S32LE, AV_CODEC_ID_PCM_S32LE, "PCM 32-bit little-endian"},
    {TRAVIK_CODEC_PCM_S32BE, AV_CODEC_ID_PCM_S32BE, "PCM 32-bit big-endian"},
    {TRAVIK_CODEC_PCM_F32LE, AV_CODEC_ID_PCM_F32LE, "PCM float little-endian"},
    {TRAVIK_CODEC_PCM_F32BE, AV_CODEC_ID_PCM_F32BE, "PCM float big-endian"},
    {TRAVIK_CODEC_PCM_F64LE, AV_CODEC_ID_PCM_F64LE, "PCM double little-endian"},
    {TRAVIK_CODEC_PCM_F64BE, AV_CODEC_ID_PCM_F64BE, "PCM double big-endian"},
    {TRAVIK_CODEC_PCM_ALAW, AV_CODEC_ID_PCM_ALAW, "G.711 A-law"},
    {TRAVIK_CODEC_PCM_MULAW, AV_CODEC_ID_PCM_MULAW, "G.711 mu-law"},
    // Container-only names: layer I shares the MPEG audio number.
    {TRAVIK_CODEC_MPEG_AUDIO, AV_CODEC_ID_MP1, "MPEG audio layer I"},
};

// The library's number of a libavcodec codec, 0 when it has none.
inline int32_t codec_number(AVCodecID id) {
  for (const CodecMapping &m : kCodecs)
    if (m.id == id) return m.codec;
  return TRAVIK_CODEC_NONE;
}

// The libavcodec id a codec number is decoded with, AV_CODEC_ID_NONE when
// none.
inline AVCodecID codec_id(int32_t codec) {
  for (const CodecMapping &m : kCodecs)
    if (m.codec == codec) return m.id;
  return AV_CODEC_ID_NONE;
}

}  // namespace travik_ffmpeg
