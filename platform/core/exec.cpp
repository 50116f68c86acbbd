// Running a program and waiting for it.
//
// posix_spawn, not fork: from a process with much memory fork copies the page
// tables, which is many times slower, and may be refused for want of memory.

#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>

#include "error.h"

using kestcore::fail;

namespace {

// What the child gets of this process's descriptors and signals.
class SpawnSettings {
 public:
  SpawnSettings() noexcept {
    haveActions_ = posix_spawn_file_actions_init(&actions_) == 0;
    haveAttributes_ = posix_spawnattr_init(&attributes_) == 0;
  }
  SpawnSettings(const SpawnSettings &) = delete;
  SpawnSettings &operator=(const SpawnSettings &) = delete;
  ~SpawnSettings() {
    if (haveActions_) posix_spawn_file_actions_destroy(&actions_);
    if (haveAttributes_) posix_spawnattr_destroy(&attributes_);
  }

  // Only descriptors 0 to 2, no blocked signal, every signal at its default.
  bool prepare() noexcept {
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    return haveActions_ && haveAttributes_ &&
           posix_spawn_file_actions_addclosefrom_np(&actions_, 3) == 0 &&
           posix_spawnattr_setsigmask(&attributes_, &none) == 0 &&
           posix_spawnattr_setsigdefault(&attributes_, &all) == 0 &&
           posix_spawnattr_setflags(&attributes_,
                                    POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF) == 0;
  }

  const posix_spawn_file_actions_t *actions() const noexcept { return &actions_; }
  const posix_spawnattr_t *attributes() const noexcept { return &attributes_; }

 private:
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
  bool haveActions_;
  bool haveAttributes_;
};

// True when the child ended with status 0. When SIGCHLD is ignored the kernel
// keeps no status, and "unknown" must not pass for success.
bool endsWell(pid_t child) noexcept {
  int status = 0;
  pid_t ended;
  do {
    ended = waitpid(child, &status, 0);
  } while (ended < 0 && errno == EINTR);
  return ended == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

int KLIBCExec(const char *program, const char *arg1, const char *arg2, const char *arg3,
              const char *arg4) {
  if (program == nullptr) return fail(KLIBC_ERR_BAD_PARAMETERS);
  SpawnSettings settings;
  if (!settings.prepare()) return fail(KLIBC_ERR_OUT_OF_MEMORY);
  // The first null ends the list, whatever stands behind it.
  const char *const arguments[] = {program, arg1, arg2, arg3, arg4, nullptr};
  pid_t child;
  if (posix_spawn(&child, program, settings.actions(), settings.attributes(),
                  const_cast<char *const *>(arguments), environ) != 0)
    return fail(KLIBC_ERR_EXEC_FAILED);
  return endsWell(child) ? 0 : fail(KLIBC_ERR_EXEC_FAILED);
}
