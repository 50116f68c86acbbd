// Whole files: read at once, walked line by line, replaced in one step.

#ifndef KESTCORE_TEXT_FILE_H_
#define KESTCORE_TEXT_FILE_H_

#include <sys/stat.h>

#include <optional>
#include <string>
#include <string_view>

#include "descriptor.h"

namespace kestcore {

// Reads the whole file. Returns 0, or -1 with the code of what went wrong.
int readFile(const std::string &path, std::string *content);

// Writes all bytes, however many calls it takes.
bool writeAll(int fd, std::string_view bytes) noexcept;

// Cuts the first line, newline included, off *rest. False at the end.
bool nextLine(std::string_view *rest, std::string_view *line) noexcept;

// Copies text and a NUL into buffer[size]. Returns its length, or -1
// (KLIBC_ERR_TOO_LONG) with an empty buffer.
int copyOut(std::string_view text, char *buffer, int size) noexcept;

// The folder that holds `path`.
std::string folderOf(const std::string &path);

// A change of one file, from reading it to putting its successor in its place,
// under a lock that other processes wait for. The object holds the lock.
class FileUpdate {
 public:
  // Follows symbolic links, waits for the lock, reads the file; a missing file
  // reads as empty. Returns 0 or -1.
  int begin(const char *path);

  const std::string &content() const noexcept { return content_; }

  // Replaces the file. Returns 0, or -1 with the file as it was, except when the
  // folder cannot be synced after the rename.
  int replace(std::string_view content);

 private:
  std::string path_;  // without symbolic links
  std::string content_;
  std::optional<struct stat> old_;  // nothing when the file is missing
  Descriptor lock_;
};

}  // namespace kestcore

#endif  // KESTCORE_TEXT_FILE_H_
