// Assigning text without letting an allocation failure escape.

#ifndef POSTWELL_INTERNAL_TEXT_H_
#define POSTWELL_INTERNAL_TEXT_H_

#include <new>
#include <string>

#include "internal/log.h"

// Every text setter's way to its field. Without memory the field keeps its value, the
// setter's source and line are logged, and the result is false.
#define ASSIGN_TEXT(field, value) \
  internal::assignText((field), (value), __FILE_NAME__, __LINE__)

namespace internal {

inline bool assignText(std::string &field, const std::string &value, const char *file,
                       int line) noexcept {
  try {
    field = value;
    return true;
  } catch (const std::bad_alloc &) {
    logLine(LOG_ERR, file, line, "Out of memory");
    return false;
  }
}

}  // namespace internal

#endif  // POSTWELL_INTERNAL_TEXT_H_
