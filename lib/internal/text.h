// Assigning text without letting an allocation failure escape.

#ifndef POSTWELL_INTERNAL_TEXT_H_
#define POSTWELL_INTERNAL_TEXT_H_

#include <new>
#include <string>

#include "internal/log.h"

namespace internal {

// Every text setter of a settings class. Without memory the field keeps its value.
inline void assignText(std::string &field, const std::string &value) noexcept {
  try {
    field = value;
  } catch (const std::bad_alloc &) {
    LOG_ERROR("Out of memory");
  }
}

}  // namespace internal

#endif  // POSTWELL_INTERNAL_TEXT_H_
