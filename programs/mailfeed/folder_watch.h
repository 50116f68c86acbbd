// Tells that something may have changed in a folder, without asking again and again.

#ifndef POSTWELL_MAILFEED_FOLDER_WATCH_H_
#define POSTWELL_MAILFEED_FOLDER_WATCH_H_

#include <string>

#include "descriptor.h"

class FolderWatch {
 public:
  // The folder need not exist yet. Throws when there can be no watch at all.
  explicit FolderWatch(const std::string &folder);

  // Readable as soon as a file in the folder is written to, made, renamed or removed, or
  // the folder itself appears.
  int fd() const { return inotify_.get(); }

  // Forgets what was told so far. Look at the folder after this, not before.
  void reset();

 private:
  void watch();

  const std::string folder_;
  Descriptor inotify_;
};

#endif  // POSTWELL_MAILFEED_FOLDER_WATCH_H_
