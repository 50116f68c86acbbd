// Running a program: KLIBCExec against a bare posix_spawn and waitpid, from a small
// process and from one with much memory in use (where fork would be slow).

#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "kestcore.h"
#include "ratio.h"

namespace {

constexpr char kProgram[] = "/bin/true";
constexpr size_t kMuch = size_t{512} << 20;

void run(benchmark::State &state) {
  for (auto _ : state)
    if (KLIBCExec(kProgram, nullptr, nullptr, nullptr, nullptr) != 0)
      return state.SkipWithError("KLIBCExec failed");
}

void spawnAndWait(benchmark::State &state) {
  char *const arguments[] = {const_cast<char *>(kProgram), nullptr};
  for (auto _ : state) {
    pid_t child;
    int status;
    if (posix_spawn(&child, kProgram, nullptr, nullptr, arguments, environ) != 0 ||
        waitpid(child, &status, 0) != child || status != 0)
      return state.SkipWithError("posix_spawn failed");
  }
}

void runLarge(benchmark::State &state) {
  const std::string touched(kMuch, 'x');
  run(state);
}

void spawnAndWaitLarge(benchmark::State &state) {
  const std::string touched(kMuch, 'x');
  spawnAndWait(state);
}

}  // namespace

int main(int argc, char **argv) {
  return runRatios(
      argc, argv,
      {{"run /bin/true", run, spawnAndWait, 1.05},
       {"run /bin/true, 512 MiB in use", runLarge, spawnAndWaitLarge, 1.05}});
}
