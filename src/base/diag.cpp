// Diagnostic printers: plain and detailed warnings, and critical messages
// that abort the process after printing.
#include <travik/system.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

void print_line(const char *format, va_list args) {
  std::vfprintf(stderr, format, args);
  std::fputc('\n', stderr);
  std::fflush(stderr);
}

// The whole line goes out in one fprintf so that lines from different
// threads do not interleave. Messages longer than 1023 characters are cut.
void print_detail(const char *level, const char *function, const char *source, int32_t line,
                  const char *format, va_list args) {
  char message[1024];
  std::vsnprintf(message, sizeof message, format, args);
  std::fprintf(stderr, "(!!!)  *** %s [%s] *** [%s:%d in %s ()]\n", level, message, source,
               static_cast<int>(line), function);
  std::fflush(stderr);
}

}  // namespace

extern "C" {

void travik_warning(const char *format, ...) {
  va_list args;
  va_start(args, format);
  print_line(format, args);
  va_end(args);
}

void travik_critical(const char *format, ...) {
  va_list args;
  va_start(args, format);
  print_line(format, args);
  va_end(args);
  std::abort();
}

void travik_warning_detail(const char *function, const char *source, int32_t line,
                           const char *format, ...) {
  va_list args;
  va_start(args, format);
  print_detail("WARNING", function, source, line, format, args);
  va_end(args);
}

void travik_critical_detail(const char *function, const char *source, int32_t line,
                            const char *format, ...) {
  va_list args;
  va_start(args, format);
  print_detail("CRITICAL", function, source, line, format, args);
  va_end(args);
  std::abort();
}

pthread_mutex_t travik_global_lock = PTHREAD_MUTEX_INITIALIZER;

}  // extern "C"
