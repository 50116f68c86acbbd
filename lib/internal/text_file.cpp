// stdio hides a full disk until the flush: flush() and finish() ask for it.

#include "internal/text_file.h"

#include <cstdarg>

namespace internal {

TextFile::TextFile(const char *path, const char *mode) noexcept
    : _file(fopen(path, mode)) {}

TextFile::~TextFile() {
  if (_file != nullptr) fclose(_file);  // of a failed operation, which says so itself
}

void TextFile::print(const char *format, ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  vfprintf(_file, format, arguments);  // flush() tells of a failure
  va_end(arguments);
}

bool TextFile::flush() noexcept { return ferror(_file) == 0 && fflush(_file) == 0; }

bool TextFile::finish() noexcept {
  const bool written = flush();
  const bool closed = fclose(_file) == 0;
  _file = nullptr;
  return written && closed;
}

}  // namespace internal
