// Files that hold the process id of a daemon.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <string>
#include <string_view>

#include "descriptor.h"
#include "error.h"
#include "settings_line.h"
#include "text_file.h"

using namespace kestcore;

namespace {

// 0 unless the text is a positive number and nothing else.
pid_t parsePid(std::string_view text) noexcept {
  pid_t pid = 0;
  const char *const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, pid);
  if (error == std::errc() && stop == end && pid > 0) return pid;
  fail(KLIBC_ERR_NOT_FOUND);
  return 0;
}

}  // namespace

pid_t KLIBCReadPidFile(const char *path) {
  if (path == nullptr) {
    fail(KLIBC_ERR_BAD_PARAMETERS);
    return 0;
  }
  return guarded<pid_t>(0, [&]() -> pid_t {
    std::string content;
    if (readFile(path, &content) < 0) return 0;
    std::string_view rest = content, line;
    nextLine(&rest, &line);
    return parsePid(trim(line));
  });
}

int KLIBCProcPidFileCreate(const char *path) {
  if (path == nullptr) return fail(KLIBC_ERR_BAD_PARAMETERS);
  return guarded(-1, [&] {
    Descriptor file(
        open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!file.ok()) return fail(KLIBC_ERR_OPEN_FAILED);
    const bool written = fchmod(file.get(), 0644) == 0 &&
                         writeAll(file.get(), std::to_string(getpid()) + "\n");
    if (file.close() && written) return 0;
    unlink(path);  // half a number would be another process's id
    return fail(KLIBC_ERR_WRITE_FAILED);
  });
}
