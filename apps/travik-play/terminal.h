// The terminal side of travik-play: raw keyboard input (restored on exit
// and on fatal signals) and key decoding.
#pragma once

namespace play {

enum Key {
  kKeyNone = 0,
  kKeyLeft = 0x100,
  kKeyRight,
  kKeyUp,
  kKeyDown,
};

// Switches standard input to raw mode (no line editing, no echo; signals
// still come from the keyboard) when it is a terminal. The previous mode
// comes back from restore_terminal(), at exit and on SIGINT, SIGTERM,
// SIGHUP and SIGQUIT. Returns whether raw mode is on.
bool enter_raw_mode();
void restore_terminal();

// Reads one key from standard input without waiting: a character, one of
// the Key codes for the arrows, or kKeyNone. End of input gives -1.
int read_key();

}  // namespace play
