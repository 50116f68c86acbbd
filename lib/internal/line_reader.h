// A text file read line by line into one growing buffer.

#ifndef POSTWELL_INTERNAL_LINE_READER_H_
#define POSTWELL_INTERNAL_LINE_READER_H_

#include <stdio.h>
#include <sys/types.h>

#include <cstdlib>

namespace internal {

class LineReader {
 public:
  // errno tells why the file is not open.
  explicit LineReader(const char *path) : _file(fopen(path, "re")) {}
  ~LineReader() {
    if (_file != nullptr) fclose(_file);  // nothing was written
    free(_line);
  }
  LineReader(const LineReader &) = delete;
  LineReader &operator=(const LineReader &) = delete;

  bool isOpen() const { return _file != nullptr; }

  // False at the end of the file and on a read error.
  bool next() { return (_length = getline(&_line, &_size, _file)) >= 0; }

  // The line with its newline, for the caller to change. A NUL may stand inside it.
  char *line() { return _line; }
  int length() const { return static_cast<int>(_length); }

 private:
  FILE *_file;
  char *_line = nullptr;
  size_t _size = 0;
  ssize_t _length = 0;
};

}  // namespace internal

#endif  // POSTWELL_INTERNAL_LINE_READER_H_
