// Options, and becoming a daemon.
//
// In the background everything that can fail at once has succeeded, and the pid file is
// written, when the command returns: whoever started it can tell.

#include "cli.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <filesystem>
#include <iostream>
#include <stdexcept>

#include "common/standard_streams.h"
#include "common/text.h"
#include "feed.h"
#include "say.h"
#include "state_file.h"
#include "status.h"

namespace {

enum ExitStatus { kDone = 0, kFailed = 1, kWrongUsage = 2 };

struct Options {
  FeedFiles files = {"/var/packages/Postwell/target/var/log/maillog",
                     "/var/packages/Postwell/target/var/lib/mailfeed/state",
                     "/var/run/maillog.sock"};
  bool background = false;
  std::string pidFile;
  bool standardInput = false;
  int year = 0;  // 0: not given
  bool status = false;
  bool json = false;
};

void define(CLI::App &app, Options *options) {
  app.set_version_flag("--version", "mailfeed " POSTWELL_VERSION);
  app.add_option("--log", options->files.log, "Postfix's log file")->type_name("FILE");
  app.add_option("--state", options->files.state,
                 "Where to keep what a restart must know")
      ->type_name("FILE");
  app.add_option("--socket", options->files.socket, "The collector's socket")
      ->type_name("PATH");
  auto *const background = app.add_flag("--background", options->background,
                                        "Go on as a daemon once everything is ready");
  app.add_option("--pid-file", options->pidFile,
                 "Write the daemon's process number there")
      ->type_name("FILE")
      ->needs(background);
  auto *const input =
      app.add_flag("--stdin", options->standardInput,
                   "Read standard input once instead of following the log; no state")
          ->excludes(background);
  app.add_option("--year", options->year, "The year of the first line of standard input")
      ->type_name("YEAR")
      ->check(CLI::Range(1970, 2037))
      ->needs(input);
  auto *const status =
      app.add_flag("--status", options->status, "Tell how far the feed has come")
          ->excludes(background)
          ->excludes(input);
  app.add_flag("--json", options->json, "The status as JSON, with keys that never change")
      ->needs(status);
  app.failure_message([](const CLI::App *, const CLI::Error &error) {
    return "mailfeed: " + printable(error.what()) +
           "\nRun with --help for more information.\n";
  });
}

// The parent ends here, once the daemon's number is in the pid file; so the file is there
// as soon as the command has returned, and the daemon reads nothing before.
void goToBackground(const std::string &pidFile) {
  int pipe[2];
  if (pipe2(pipe, O_CLOEXEC) != 0)
    throw std::runtime_error(because("cannot fork", errno));
  const Descriptor start(pipe[0]);
  Descriptor starter(pipe[1]);
  const pid_t child = fork();
  if (child < 0) throw std::runtime_error(because("cannot fork", errno));
  if (child > 0) {
    std::string failure =
        pidFile.empty() ? ""
                        : replaceFile(pidFile, std::to_string(child) + '\n', 0644, false);
    if (failure.empty() && write(starter.get(), "", 1) != 1)
      failure = because("cannot start the daemon", errno);
    if (!failure.empty()) {
      std::cerr << "mailfeed: " << failure << '\n';
      starter = Descriptor();  // it will never be started
      waitpid(child, nullptr, 0);
    }
    _exit(failure.empty() ? kDone : kFailed);
  }
  starter = Descriptor();
  char started;
  if (read(start.get(), &started, 1) != 1) _exit(kFailed);
  setsid();
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    if (null < 0 || dup2(null, fd) < 0) _exit(kFailed);
  if (chdir("/") != 0) _exit(kFailed);  // or the file system could never be unmounted
}

void follow(Options options) {
  using std::filesystem::absolute;  // the daemon's folder is another
  options.files = {absolute(options.files.log), absolute(options.files.state),
                   absolute(options.files.socket)};
  const std::string pidFile =
      options.pidFile.empty() ? "" : absolute(options.pidFile).string();
  Stop stop;
  Feed feed(options.files, stop);
  if (options.background) {
    goToBackground(pidFile);
    openSystemLog(false);
  }
  feed.run();
  // Who starts the next one replaces what cannot be removed here.
  if (!pidFile.empty()) (void)unlink(pidFile.c_str());
}

int run(const Options &options) {
  if (options.status) {
    const std::string failure = printStatus(options.files.state, options.json);
    if (!failure.empty()) std::cerr << "mailfeed: " << failure << '\n';
    return failure.empty() ? kDone : kFailed;
  }
  openSystemLog(true);
  if (!options.standardInput) {
    follow(options);
    return kDone;
  }
  Stop stop;
  return backfill(options.files.socket, options.year, stop) ? kDone : kFailed;
}

}  // namespace

int runCli(int argc, const char *const *argv) noexcept {
  keepStandardStreams();
  try {
    Options options;
    CLI::App app("Feeds Postfix's log to the mail log's collector.", "mailfeed");
    define(app, &options);
    try {
      app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
      return app.exit(error, std::cout, std::cerr) == 0 ? kDone : kWrongUsage;
    }
    const int status = run(options);
    if (std::cout.flush()) return status;
    std::cerr << "mailfeed: cannot write to standard output\n";
  } catch (const std::exception &error) {
    say(LOG_ERR, error.what());
  }
  return kFailed;
}
