// A text file read line by line into one growing buffer.

#ifndef POSTWELL_INTERNAL_LINE_READER_H_
#define POSTWELL_INTERNAL_LINE_READER_H_

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdlib>

namespace internal {

class LineReader {
 public:
  // errno tells why the file is not open. `flags` are further ones of open().
  explicit LineReader(const char *path, int flags = 0) : _file(openFile(path, flags)) {}
  ~LineReader() {
    if (_file != nullptr) fclose(_file);  // nothing was written
    free(_line);
  }
  LineReader(const LineReader &) = delete;
  LineReader &operator=(const LineReader &) = delete;

  bool isOpen() const { return _file != nullptr; }
  // Open, and no folder, pipe or device: what is read has an end.
  bool isFile() const {
    struct stat st;
    return isOpen() && fstat(fileno(_file), &st) == 0 && S_ISREG(st.st_mode);
  }

  // False at the end of the file, on a read error and without memory.
  bool next() { return (_length = getline(&_line, &_size, _file)) >= 0; }
  // After next() was false: whether that was the end.
  bool isAtEnd() const { return feof(_file) != 0; }

  // The line with its newline, for the caller to change. A NUL may stand inside it.
  char *line() { return _line; }
  int length() const { return static_cast<int>(_length); }

 private:
  static FILE *openFile(const char *path, int flags) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC | flags);
    FILE *const file = fd < 0 ? nullptr : fdopen(fd, "r");
    if (file == nullptr && fd >= 0) close(fd);
    return file;
  }

  FILE *_file;
  char *_line = nullptr;
  size_t _size = 0;
  ssize_t _length = 0;
};

}  // namespace internal

#endif  // POSTWELL_INTERNAL_LINE_READER_H_
