#include "support/package_tree.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/files.h"

namespace {

namespace fs = std::filesystem;

const char kTarget[] = "/var/packages/Postwell/target/";
// Of the tests alone: /tmp itself may hold the build folder that is shown to them.
const char kNotes[] = "/tmp/postwell-test";
const char kCalls[] = "/tmp/postwell-test/calls";

const char *const kRecorded[] = {
    "scripts/DaemonConfSet.sh", "scripts/PostfixDaemon.sh", "scripts/DovecotDaemon.sh",
    "bin/kest_gen_login_map",   "bin/kest_access_map",      "bin/kest_bcc_map",
    "bin/kest_spam_blackwhite", "scripts/SpamDaemon.sh",    "bin/kest_anti-virus",
    "scripts/MailScanner.sh",   "scripts/SpamRuleCheck.sh"};

void empty(const fs::path &folder) {
  fs::permissions(folder, fs::perms::owner_all, fs::perm_options::add);
  for (const auto &entry : fs::directory_iterator(folder)) fs::remove_all(entry.path());
}

// Where a recorder looks for the status to exit with.
std::string statusFile(const std::string &name, const std::string &argument) {
  return std::string(kNotes) + "/status-" + name +
         (argument.empty() ? "" : "-" + argument);
}

}  // namespace

PackageTree::PackageTree() {
  for (const char *folder :
       {"/var/packages/Postwell/etc", "/var/packages/Postwell/target/etc",
        "/var/packages/Postwell/target/scripts", "/var/packages/Postwell/target/bin",
        "/usr/local/etc/services.d", "/usr/kest/etc", kNotes}) {
    fs::create_directories(folder);
    empty(folder);
  }
  for (const char *script : kRecorded) {
    const std::string name = fs::path(script).filename();
    writeFile(kTarget + std::string(script),
              "#!/bin/sh\n"
              "echo \"" +
                  name + "${1:+ }$*\" >>" + kCalls +
                  "\n"
                  "for f in " +
                  statusFile(name, "$1") + " " + statusFile(name, "") +
                  "; do\n"
                  "  [ -e \"$f\" ] && read -r s <\"$f\" && exit \"$s\"\n"
                  "done\n"
                  "exit 0\n",
              0755);
  }
}

void PackageTree::failScript(const std::string &name, int status,
                             const std::string &argument) {
  writeFile(statusFile(name, argument), std::to_string(status) + "\n");
}

std::vector<std::string> PackageTree::takeCalls() {
  std::vector<std::string> calls;
  std::ifstream in(kCalls);
  for (std::string line; std::getline(in, line);) calls.push_back(line);
  unlink(kCalls);
  return calls;
}
