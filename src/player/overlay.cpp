// The subtitle overlay: a video filter, installed at create, that renders
// the current subtitle entry with the player's font and blends it into
// each frame drawn; and the life of the subtitle source and the font.
//
// The overlay runs inside travik_video_draw(), under the video device's
// lock; the application's thread swaps the subtitle source and the font
// under the same lock. The entry shown and its drawing are touched by the
// overlay only, and released by seek and close once the video output
// thread has been reset.
#include <travik/draw.h>
#include <travik/font.h>
#include <travik/subtitle.h>

#include "player/player_internal.h"

namespace {

const int32_t kTextFlags = TRAVIK_DRAW_HCENTER | TRAVIK_DRAW_VCENTER;  // 36
const uint32_t kWhite = 0xFFFFFFFFu;

// The drawing over the frame's own picture. One is kept per picture size
// and format, as making one allocates and clears a coverage mask as large
// as the picture; for each frame it is pointed at that frame's planes
// (those it took at creation). The mask is only written by blits, so what
// an earlier frame left in it does not matter.
travik_draw *overlay_target(travik_player *player, travik_videoframe *frame) {
  auto *target = static_cast<travik_draw *>(player->overlay_target);
  if (target && target->width == frame->width && target->height == frame->height &&
      target->format == frame->format) {
    for (int k = 0; k < 3; k++) {
      if (!target->planes[k]) continue;
      target->planes[k] = frame->planes[k];
      target->pitches[k] = frame->pitches[k];
    }
    return target;
  }
  if (target) travik_draw_destroy(target);
  target =
      travik_draw_create(frame->width, frame->height, frame->planes, frame->pitches, frame->format);
  player->overlay_target = target;
  return target;
}

// Blits the rendered entry into the frame, centred and on the bottom edge.
void overlay_blit(travik_player *player, travik_draw *image, travik_videoframe *frame) {
  travik_draw_blit(overlay_target(player, frame), (frame->width - image->width) / 2,
                   frame->height - image->height, image->width, image->height, image, 0, 0);
}

// Renders every line of the entry, centred, one below the other.
travik_draw *overlay_render(travik_player *player, travik_subtitle_entry *entry,
                            travik_videoframe *frame) {
  int32_t h = travik_font_getheight(player->font);
  travik_draw *image =
      travik_draw_create(frame->width, entry->count * h + h / 4, nullptr, nullptr, frame->format);
  travik_draw_setcolor(image, kWhite);
  travik_draw_setfont(image, player->font);
  int32_t y = 0;
  for (int32_t i = 0; i < entry->count; i++) {
    const travik_subtitle_line &line = entry->lines[i];
    travik_font_extents extents = {0, 0, 0, 0};
    travik_font_getstringextents(player->font, line.text, line.length, &extents);
    travik_draw_rect box;
    box.x = static_cast<int16_t>((frame->width - extents.width) / 2);
    box.y = static_cast<int16_t>(y);
    box.w = extents.width;
    box.h = extents.height;
    travik_draw_drawtext(image, &box, line.text, line.length, kTextFlags);
    y += extents.height;
  }
  return image;
}

void replace_subtitle(travik_player *player, travik_subtitle *subtitle) {
  pthread_mutex_lock(&player->video_device->lock);
  travik_subtitle *old = player->subtitle;
  player->subtitle = subtitle;
  pthread_mutex_unlock(&player->video_device->lock);
  if (old) travik_subtitle_destroy(old);
}

void replace_font(travik_player *player, travik_font *font) {
  pthread_mutex_lock(&player->video_device->lock);
  travik_font *old = player->font;
  player->font = font;
  pthread_mutex_unlock(&player->video_device->lock);
  if (old) travik_font_destroy(old);
}

void release_shown(travik_player *player) {
  auto *entry = static_cast<travik_subtitle_entry *>(player->subtitle_item);
  if (entry) entry->release(entry);
  player->subtitle_item = nullptr;
  if (player->subtitle_image) travik_draw_destroy(static_cast<travik_draw *>(player->subtitle_image));
  player->subtitle_image = nullptr;
}

}  // namespace

int32_t subtitle_overlay(void *data, travik_videoframe *frame) {
  auto *player = static_cast<travik_player *>(data);
  if (!frame || player->subtitle_visible == 0 || !player->subtitle || !player->font) return 0;
  auto *image = static_cast<travik_draw *>(player->subtitle_image);
  if (image) overlay_blit(player, image, frame);
  if (!player->subtitle_item) {
    travik_subtitle_parse(player->subtitle, &player->subtitle_item);
    if (!player->subtitle_item) return 0;
  }
  auto *entry = static_cast<travik_subtitle_entry *>(player->subtitle_item);
  if (entry->time < frame->timestamp) {
    if (image) travik_draw_destroy(image);
    player->subtitle_image = overlay_render(player, entry, frame);
  }
  // Once due, the entry is done with: the next call parses the following
  // one, while its image stays on screen until a later entry replaces it.
  // The entry is released here, as nothing else refers to it any more.
  if (frame->timestamp >= entry->time) {
    player->subtitle_item = nullptr;
    entry->release(entry);
  }
  return 0;
}

void overlay_attach_beside(travik_player *player, const char *url) {
  if (!player->subtitle) replace_subtitle(player, travik_subtitle_create(url, nullptr));
}

void overlay_seek(travik_player *player, int32_t position) {
  release_shown(player);
  if (player->subtitle) travik_subtitle_seek(player->subtitle, position);
}

void overlay_close(travik_player *player) {
  release_shown(player);
  replace_subtitle(player, nullptr);
}

void overlay_destroy(travik_player *player) {
  if (player->font) travik_font_destroy(player->font);
  player->font = nullptr;
  if (player->overlay_target) travik_draw_destroy(static_cast<travik_draw *>(player->overlay_target));
  player->overlay_target = nullptr;
}

extern "C" {

int travik_player_setfont(travik_player *player, const char *name, int32_t size) {
  replace_font(player, nullptr);
  replace_font(player, travik_font_create(name, size, nullptr));
  return player->font ? 0 : 1;
}

int travik_player_setsubtitle(travik_player *player, const char *url) {
  replace_subtitle(player, nullptr);
  replace_subtitle(player, travik_subtitle_create(url, nullptr));
  return player->subtitle ? 0 : 1;
}

}  // extern "C"
