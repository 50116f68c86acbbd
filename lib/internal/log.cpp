// The one way to the system log. Every line begins "%s:%d " with the source file
// and line that met the failure, which is what log readers split on.

#include "internal/log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace internal {

void logLine(int priority, const char *file, int line, const char *format, ...) noexcept {
  const int savedErrno = errno;
  char text[4096];
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  // vsnprintf() fails only on a text that cannot be formatted; its format still tells
  syslog(priority, "%s:%d %s", file, line, length < 0 ? format : text);
  errno = savedErrno;
}

}  // namespace internal
