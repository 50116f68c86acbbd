// maillogd: the mail log's daemon. Its command line; see daemon.h.

#include <grp.h>

#include <CLI/CLI.hpp>
#include <climits>
#include <filesystem>
#include <iostream>

#include "common/standard_streams.h"
#include "common/text.h"
#include "daemon.h"

namespace {

constexpr int kFailed = 1, kWrongUsage = 2;

// The number of the group.
gid_t groupNamed(const std::string &name) {
  const group *found = getgrnam(name.c_str());
  if (found == nullptr) throw CLI::ValidationError("--group", "no group " + name);
  return found->gr_gid;
}

int run(int argc, const char *const *argv) {
  DaemonOptions options;
  std::string group;
  CLI::App app("Collects the mail log's records from /var/run/maillog.sock.", "maillogd");
  app.set_version_flag("--version", "maillogd " POSTWELL_VERSION);
  app.add_flag("--background", options.background,
               "detach; the command returns when senders can connect");
  app.add_option("--pid-file", options.pidFile, "the file for the process id")
      ->capture_default_str();
  app.add_option("--cache-time", options.cacheTime,
                 "seconds that records may wait to be stored")
      ->check(CLI::Range(0, 86400))
      ->capture_default_str();
  app.add_option("--rotate-threshold", options.rotateThreshold,
                 "rows above which the log is moved aside")
      ->check(CLI::Range(1, INT_MAX))
      ->capture_default_str();
  app.add_option("--group", group, "the group that may connect besides root");
  app.failure_message([](const CLI::App *, const CLI::Error &error) {
    return "maillogd: " + printable(error.what()) +
           "\nRun with --help for more information.\n";
  });
  try {
    app.parse(argc, argv);
    if (!group.empty()) options.group = groupNamed(group);
  } catch (const CLI::ParseError &error) {
    return app.exit(error, std::cout, std::cerr) == 0 ? 0 : kWrongUsage;
  }
  options.pidFile = std::filesystem::absolute(options.pidFile);
  return runDaemon(options);
}

}  // namespace

int main(int argc, char **argv) {
  keepStandardStreams();
  try {
    return run(argc, argv);
  } catch (const std::exception &error) {
    std::cerr << "maillogd: " << error.what() << '\n';
    return kFailed;
  }
}
