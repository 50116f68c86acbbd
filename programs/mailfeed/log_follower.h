// Reads a log file line by line, also when it is rotated.

#ifndef POSTWELL_MAILFEED_LOG_FOLLOWER_H_
#define POSTWELL_MAILFEED_LOG_FOLLOWER_H_

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "descriptor.h"

// A place in a text, and what stands before it.
struct Mark {
  uint64_t offset = 0;
  uint64_t fingerprint = 0;  // of the bytes before that, 1024 at most
};

// A place in a log file, and what tells that file from others.
struct Position {
  uint64_t device = 0;
  uint64_t inode = 0;
  Mark mark;                   // where the next line begins
  int64_t written = 0;         // when the file was written to last, as far as is known
  std::vector<Mark> finished;  // ends of other files that need not be read (again)
};

// The path without symbolic links, as far as it exists.
std::string realPath(const std::string &path);

class LogFollower {
 public:
  // `path` names the log; what rotation makes of it is called `path`, a "." or "-", and
  // digits. Goes on from the position, which may be in one of those by now; without one
  // begins with the first line of the log, and never reads what was rotated before. No
  // file need exist yet.
  LogFollower(const std::string &path, const std::optional<Position> &position);

  // The next whole line without its newline; it stays valid until the next call. False
  // when there is none for now. At the end of a file that was rotated goes on with the
  // one that took its place; what stands at its end without a newline is a line, too.
  bool next(std::string_view *line);

  // Where the next line begins.
  Position position() const;

  // The last line that was read, also by the run before; of a long one its end.
  std::string_view lastLine() const;

  // When the file of the last line was written to last.
  int64_t written() const { return file_.written(); }

  // Bytes of the current file that have not been read yet.
  uint64_t unread() const;

 private:
  struct File {
    std::string path;
    struct stat status = {};
    int64_t written() const { return status.st_mtime; }
    bool is(uint64_t device, uint64_t inode) const {
      return status.st_dev == device && status.st_ino == inode;
    }
    bool is(const File &other) const {
      return is(other.status.st_dev, other.status.st_ino);
    }
    bool isNewerThan(const File &other) const;
  };

  static std::optional<File> look(const std::string &path);
  std::vector<File> rotated() const;
  bool isFinished(const File &file) const;
  void finish(const Mark &end);

  void resume(const Position &position);
  bool openAt(const Position &position, const File &file);
  bool open(const File &file);
  std::optional<File> successor() const;
  std::optional<File> oldestSince(const File &file) const;
  bool fill();
  bool isSame() const;
  bool takeLine(std::string_view *line);
  bool takeRest(std::string_view *line);
  std::string_view justRead() const;
  Mark mark() const;

  const std::string path_;
  File file_;  // the one that is being read
  Descriptor fd_;
  std::string buffer_;  // some bytes before the next line, and what was read ahead
  uint64_t base_ = 0;   // where in the file the buffer begins
  size_t start_ = 0;    // where in the buffer the next line begins
  std::vector<Mark> finished_;
};

#endif  // POSTWELL_MAILFEED_LOG_FOLLOWER_H_
