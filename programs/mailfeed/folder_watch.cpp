// inotify(7) on the folder, which also tells of writing to each file in it, whatever its
// name has become. A folder that does not exist is waited for in the nearest one above
// that does. An overflow of the queue is an event like any other: all that an event says
// is "look".

#include "folder_watch.h"

#include <sys/inotify.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace {

constexpr uint32_t kEvents = IN_MODIFY | IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM |
                             IN_DELETE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;

}  // namespace

FolderWatch::FolderWatch(const std::string &folder)
    : folder_(folder), inotify_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
  if (!inotify_.isOpen())
    throw std::system_error(errno, std::generic_category(), "cannot use inotify");
  watch();
}

void FolderWatch::reset() {
  char events[4096];
  while (read(inotify_.get(), events, sizeof(events)) > 0) continue;
  watch();
}

// Watching what is watched already changes nothing. When a folder above had to be taken,
// the one below may have appeared before that, so it is tried once more.
void FolderWatch::watch() {
  const std::filesystem::path wanted = folder_;
  std::filesystem::path tried = wanted, missing;
  for (;;) {
    if (inotify_add_watch(inotify_.get(), tried.c_str(), kEvents) < 0) {
      if (errno != ENOENT)
        throw std::system_error(errno, std::generic_category(),
                                "cannot watch " + tried.string());
      missing = tried;
      tried = tried.parent_path();
    } else if (missing.empty() || !std::filesystem::exists(missing)) {
      return;
    } else {
      tried = wanted;
      missing.clear();
    }
  }
}
