#include "terminal.h"

#include <signal.h>
#include <string.h>
#include <sys/select.h>
#include <termios.h>
#include <unistd.h>

namespace play {

namespace {

struct termios saved_mode;
volatile sig_atomic_t raw = 0;

void restore_and_reraise(int signal_number) {
  restore_terminal();
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = SIG_DFL;
  sigemptyset(&action.sa_mask);
  sigaction(signal_number, &action, nullptr);
  raise(signal_number);
}

// Waits at most `ms` milliseconds for a byte of standard input.
int read_byte(int ms) {
  fd_set set;
  FD_ZERO(&set);
  FD_SET(0, &set);
  struct timeval wait = {0, ms * 1000};
  if (select(1, &set, nullptr, nullptr, &wait) <= 0) return kKeyNone;
  unsigned char c;
  ssize_t n = read(0, &c, 1);
  if (n == 0) return -1;
  return n == 1 ? static_cast<int>(c) : static_cast<int>(kKeyNone);
}

}  // namespace

bool enter_raw_mode() {
  if (!isatty(0) || tcgetattr(0, &saved_mode) != 0) return false;
  struct termios mode = saved_mode;
  mode.c_lflag &= static_cast<tcflag_t>(~(ICANON | ECHO));
  mode.c_cc[VMIN] = 1;
  mode.c_cc[VTIME] = 0;
  if (tcsetattr(0, TCSANOW, &mode) != 0) return false;
  raw = 1;
  // Async-signal-safe: tcsetattr is, and the handler touches nothing else.
  // SIGINT and SIGTERM are the application's own (it quits cleanly and
  // restores the mode itself); these end the process at once.
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = restore_and_reraise;
  sigemptyset(&action.sa_mask);
  sigaction(SIGHUP, &action, nullptr);
  sigaction(SIGQUIT, &action, nullptr);
  sigaction(SIGABRT, &action, nullptr);
  sigaction(SIGSEGV, &action, nullptr);
  return true;
}

void restore_terminal() {
  if (raw) {
    tcsetattr(0, TCSANOW, &saved_mode);
    raw = 0;
  }
}

int read_key() {
  int c = read_byte(0);
  if (c != 0x1B) return c;
  // An arrow is ESC [ A..D (or ESC O A..D); the rest of the sequence
  // follows at once. A lone ESC is ignored.
  int second = read_byte(20);
  if (second != '[' && second != 'O') return kKeyNone;
  switch (read_byte(20)) {
    case 'A': return kKeyUp;
    case 'B': return kKeyDown;
    case 'C': return kKeyRight;
    case 'D': return kKeyLeft;
    default: return kKeyNone;
  }
}

}  // namespace play
