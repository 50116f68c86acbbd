// A text file that is being written.

#ifndef POSTWELL_INTERNAL_TEXT_FILE_H_
#define POSTWELL_INTERNAL_TEXT_FILE_H_

#include <cstdio>

namespace internal {

// Nothing is known to be in the file before flush() or finish().
class TextFile {
 public:
  // `mode` is fopen's.
  explicit TextFile(const char *path, const char *mode = "we") noexcept;
  ~TextFile();
  TextFile(const TextFile &) = delete;
  TextFile &operator=(const TextFile &) = delete;

  bool isOpen() const noexcept { return _file != nullptr; }
  void print(const char *format, ...) noexcept __attribute__((format(printf, 2, 3)));
  // Whether all that was printed so far is written.
  bool flush() noexcept;
  // The same, and the file is closed.
  bool finish() noexcept;

 private:
  FILE *_file;
};

}  // namespace internal

#endif  // POSTWELL_INTERNAL_TEXT_FILE_H_
