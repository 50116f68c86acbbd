// What SQLite keeps beside a database in write-ahead mode: the log itself and its index.

#ifndef POSTWELL_INTERNAL_WRITE_AHEAD_H_
#define POSTWELL_INTERNAL_WRITE_AHEAD_H_

#include <unistd.h>

#include <climits>
#include <cstdio>
#include <string>

namespace internal {

// Takes away the write-ahead log that a database of this name has left, before a file
// takes the name that is another one: SQLite would read the old log and index as the new
// file's own. Connections to the old file keep theirs.
inline void removeWriteAheadLog(const std::string &path) noexcept {
  char name[PATH_MAX];
  for (const char *end : {"-wal", "-shm"}) {
    const int length = snprintf(name, sizeof name, "%s%s", path.c_str(), end);
    if (length > 0 && length < PATH_MAX) unlink(name);  // there rarely is one
  }
}

}  // namespace internal

#endif  // POSTWELL_INTERNAL_WRITE_AHEAD_H_
