/*
 * travik - codec numbers, container tag tables and the WAVE format and
 * bitmap information header readers.
 *
 * Containers name codecs by a four-character code (video; first character
 * in the lowest byte of a little-endian word) or by a 16-bit WAVE format
 * tag (audio). travik_codec_get_id() maps them onto the library's codec
 * numbers below, which is what decoder plugins declare and what the
 * decoder cache keys ("Codec[i]", "%08x") hold.
 */
#ifndef TRAVIK_CODEC_H
#define TRAVIK_CODEC_H

#include <travik/common.h>

TRAVIK_BEGIN_DECLS

struct travik_io;

/*
 * Codec numbers. The first group is what the two tag tables produce; the
 * second names codecs the tables have no row for, numbered from 64 upwards
 * so that they never meet a table number and still fit the 128 slots of
 * travik_decoder_register_driver(). Demuxer plugins for containers whose
 * codecs are not in the tables map them onto these numbers.
 */
enum {
  TRAVIK_CODEC_NONE = 0,

  /* Audio, from travik_codec_wav_tags. */
  TRAVIK_CODEC_MPEG_AUDIO = 1,     /* MPEG-1/2 audio layers I-III (0x0050, 0x0055) */
  TRAVIK_CODEC_AC3 = 2,            /* 0x2000 */
  TRAVIK_CODEC_PCM_S16LE = 4,      /* 0x0001 with 16 bits a sample */
  TRAVIK_CODEC_PCM_U8 = 9,         /* 0x0001 with 8 bits a sample (set by the WAVE reader) */
  TRAVIK_CODEC_PCM_ALAW = 10,      /* 0x0006, G.711 A-law */
  TRAVIK_CODEC_PCM_MULAW = 11,     /* 0x0007, G.711 mu-law */
  TRAVIK_CODEC_ADPCM_IMA = 13,     /* 0x0011 */
  TRAVIK_CODEC_ADPCM_DK3 = 14,     /* 0x0062 */
  TRAVIK_CODEC_ADPCM_DK4 = 15,     /* 0x0061 */
  TRAVIK_CODEC_ADPCM_MS = 18,      /* 0x0002 */
  TRAVIK_CODEC_WMAV1 = 26,         /* 0x0160 */
  TRAVIK_CODEC_WMAV2 = 27,         /* 0x0161 */
  TRAVIK_CODEC_WMAPRO = 28,        /* 0x0162 */
  TRAVIK_CODEC_VORBIS = 29,        /* 0x566F */
  TRAVIK_CODEC_WMAVOICE = 32,      /* 0x000A */

  /* Video, from travik_codec_video_tags. */
  TRAVIK_CODEC_MPEG_VIDEO = 33,    /* MPEG-1/2 video */
  TRAVIK_CODEC_H263 = 34,
  TRAVIK_CODEC_H263P = 35,
  TRAVIK_CODEC_H263I = 36,
  TRAVIK_CODEC_MPEG4 = 37,         /* MPEG-4 part 2 */
  TRAVIK_CODEC_MSMPEG4V3 = 38,
  TRAVIK_CODEC_MSMPEG4V2 = 39,
  TRAVIK_CODEC_MSMPEG4V1 = 40,
  TRAVIK_CODEC_H264 = 41,
  TRAVIK_CODEC_WMV1 = 42,
  TRAVIK_CODEC_WMV2 = 43,
  TRAVIK_CODEC_WMV3 = 44,
  TRAVIK_CODEC_VP6F = 58,

  /* Codecs without a table row. */
  TRAVIK_CODEC_RAWVIDEO = 64,      /* planar YUV 4:2:0 pictures, Y then U then V */
  TRAVIK_CODEC_AAC = 65,
  TRAVIK_CODEC_FLAC = 66,
  TRAVIK_CODEC_OPUS = 67,
  TRAVIK_CODEC_HEVC = 68,
  TRAVIK_CODEC_VP8 = 69,
  TRAVIK_CODEC_VP9 = 70,
  TRAVIK_CODEC_AV1 = 71,
  TRAVIK_CODEC_THEORA = 72,
  TRAVIK_CODEC_MJPEG = 73,
  TRAVIK_CODEC_VC1 = 74,
  TRAVIK_CODEC_VP6 = 75,
  TRAVIK_CODEC_PCM_S16BE = 76,
  TRAVIK_CODEC_PCM_S24LE = 77,
  TRAVIK_CODEC_PCM_S32LE = 78,
  TRAVIK_CODEC_PCM_F32LE = 79,
  TRAVIK_CODEC_SPEEX = 80,
  TRAVIK_CODEC_EAC3 = 81,
  TRAVIK_CODEC_DTS = 82,
  TRAVIK_CODEC_AMR_NB = 83,
  TRAVIK_CODEC_AMR_WB = 84,
  TRAVIK_CODEC_ALAC = 85,
  TRAVIK_CODEC_MPEG2VIDEO = 86,    /* when a container tells MPEG-2 from MPEG-1 */
  TRAVIK_CODEC_MP2 = 87,           /* MPEG audio layer II, when a container names it */
  TRAVIK_CODEC_PCM_S24BE = 88,
  TRAVIK_CODEC_PCM_S32BE = 89,
  TRAVIK_CODEC_PCM_F32BE = 90,
  TRAVIK_CODEC_PCM_F64LE = 91,
  TRAVIK_CODEC_PCM_F64BE = 92,
  TRAVIK_CODEC_PCM_S8 = 93
};

/* Stream types of a codec description. */
enum { TRAVIK_STREAM_OTHER = 0, TRAVIK_STREAM_AUDIO = 1, TRAVIK_STREAM_VIDEO = 2 };

/* Builds a four-character code: TRAVIK_FOURCC('H','2','6','4'). */
#define TRAVIK_FOURCC(a, b, c, d)                                                     \
  ((uint32_t)(uint8_t)(a) | ((uint32_t)(uint8_t)(b) << 8) | ((uint32_t)(uint8_t)(c) << 16) | \
   ((uint32_t)(uint8_t)(d) << 24))

/* One row of a tag table; an id of 0 ends the table. */
typedef struct travik_codec_tag {
  int32_t id;     /* codec number */
  uint32_t tag;   /* four-character code or WAVE format tag */
  int32_t flag;   /* 1 on "DIVX", "DX50", "XVID" and "DIV3"; not used in lookups */
} travik_codec_tag;

/* Four-character codes of video codecs (38 rows with the terminator). The
 * first matching row wins, so the second "H263" row is never returned. */
TRAVIK_API extern const travik_codec_tag travik_codec_video_tags[38];
/* WAVE format tags (17 rows with the terminator). 0x0001 gives
 * TRAVIK_CODEC_PCM_S16LE; travik_read_wav_header() turns 8-bit PCM into
 * TRAVIK_CODEC_PCM_U8. */
TRAVIK_API extern const travik_codec_tag travik_codec_wav_tags[17];

/* The codec description of a stream, filled by container parsers. */
typedef struct travik_codec_info {
  int32_t type;            /* TRAVIK_STREAM_AUDIO, _VIDEO or _OTHER */
  int32_t codec;           /* TRAVIK_CODEC_*, 0 when unknown */
  uint32_t tag;            /* the container's tag as read */
  int32_t bitrate;         /* bits per second; 0 or less when unknown */
  int32_t sample_rate;     /* audio: samples per second */
  uint8_t *extradata;      /* codec-specific bytes owned by the stream, or NULL */
  int32_t extradata_size;
  int32_t channels;        /* audio */
  int32_t bits_per_sample; /* audio; video: bits a pixel */
  int32_t block_align;     /* audio: bytes of one sample frame or coded block */
  int32_t reserved;        /* not set by the header readers */
  int32_t width;           /* video */
  int32_t height;          /* video */
  int32_t framerate;       /* video: hundredths of a frame per second, 0 when unknown;
                              not set by the header readers */
} travik_codec_info;

/* The id of the first row whose tag equals `tag` with every one of the four
 * bytes mapped to upper case first (so "mp4v" is "MP4V", and a WAVE tag
 * 0x0041 matches the 0x0061 row); 0 when none. */
TRAVIK_API int32_t travik_codec_get_id(const travik_codec_tag *table, uint32_t tag);

/*
 * Read a WAVE format header (`size` bytes, at least 14) or a bitmap
 * information header (`size` bytes, at least 40) from the input's current
 * position into `info`, allocating `extradata` when the header carries
 * extra bytes. Both return 1; a short input shows as all-ones or truncated
 * values in the fields.
 */
TRAVIK_API int32_t travik_read_wav_header(struct travik_io *input, travik_codec_info *info,
                                          int32_t size);
TRAVIK_API int32_t travik_read_bmi_header(struct travik_io *input, travik_codec_info *info,
                                          int32_t size);

TRAVIK_END_DECLS

#endif /* TRAVIK_CODEC_H */
