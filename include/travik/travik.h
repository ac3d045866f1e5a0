/*
 * travik - media-playback engine for small embedded Linux devices.
 *
 * The umbrella header: includes every module of the public API.
 */
#ifndef TRAVIK_TRAVIK_H
#define TRAVIK_TRAVIK_H

#include <travik/audio.h>
#include <travik/bytes.h>
#include <travik/codec.h>
#include <travik/common.h>
#include <travik/config.h>
#include <travik/decoder.h>
#include <travik/demuxer.h>
#include <travik/draw.h>
#include <travik/font.h>
#include <travik/frame.h>
#include <travik/io.h>
#include <travik/list.h>
#include <travik/metadata.h>
#include <travik/pitch.h>
#include <travik/player.h>
#include <travik/plugin.h>
#include <travik/queue.h>
#include <travik/resample.h>
#include <travik/scale.h>
#include <travik/schedule.h>
#include <travik/subtitle.h>
#include <travik/system.h>
#include <travik/thread.h>
#include <travik/timeval.h>
#include <travik/url.h>
#include <travik/video.h>
#include <travik/yuv2rgb.h>

#endif /* TRAVIK_TRAVIK_H */
