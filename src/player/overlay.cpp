// The subtitle overlay and the life of the subtitle source and the font.
//
// The text overlay's library (subtitle sources, fonts, drawing) is not in
// this build yet: no subtitle source or font can be made, so the overlay
// filter never draws and setfont/setsubtitle fail. The player's record,
// the filter's installation and every call site are in place.
#include "player/player_internal.h"

int32_t subtitle_overlay(void *data, travik_videoframe *frame) {
  auto *player = static_cast<travik_player *>(data);
  (void)player;
  (void)frame;
  return 0;
}

void overlay_attach_beside(travik_player *, const char *) {}

void overlay_seek(travik_player *, int32_t) {}

void overlay_close(travik_player *) {}

void overlay_destroy(travik_player *) {}

extern "C" {

int travik_player_setfont(travik_player *, const char *, int32_t) { return 1; }

int travik_player_setsubtitle(travik_player *, const char *) { return 1; }

}  // extern "C"
