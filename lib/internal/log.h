// Writes the library's lines to the system log. Their texts are interface: log
// readers match them, misspelt ones included, so none is changed.

#ifndef POSTWELL_INTERNAL_LOG_H_
#define POSTWELL_INTERNAL_LOG_H_

#include <syslog.h>

// Logs "file:line text" at LOG_ERR; the arguments are as printf's.
#define LOG_ERROR(...) internal::logLine(LOG_ERR, __FILE_NAME__, __LINE__, __VA_ARGS__)

// The same at LOG_DEBUG.
#define LOG_DEBUGGING(...) \
  internal::logLine(LOG_DEBUG, __FILE_NAME__, __LINE__, __VA_ARGS__)

namespace internal {

// Logs "file:line text" at `priority`. Keeps errno; a text past 4 KB is cut.
void logLine(int priority, const char *file, int line, const char *format, ...) noexcept
    __attribute__((format(printf, 4, 5)));

}  // namespace internal

#endif  // POSTWELL_INTERNAL_LOG_H_
