// The functions at the end take the place of the system's and SQLite's: the dynamic
// linker binds the library's calls to the test program first.

#include "support/collector_test.h"

#include <dirent.h>
#include <dlfcn.h>
#include <grp.h>
#include <pwd.h>
#include <sqlite3.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <utility>

#include "support/connections.h"

namespace collector {

time_t now = 0;
long sleptMs = 0;
std::function<void()> beforeRename, afterRename, afterAccept;
std::string ownerName, groupName;

namespace {

constexpr time_t kStart = 1700000015;

std::map<std::string, int> countdown;  // calls left until the failing one
std::string failingStatement;
int statementCode = 0;
Rows statements, calls;
bool inSQLite = false;  // which runs statements of its own by the same functions
bool inTest = false;    // before the first one, nothing above is sure to be constructed

// True, with errno set, when the function has to fail.
bool fails(const char *function) {
  if (!inTest) return false;
  const auto found = countdown.find(function);
  if (found == countdown.end() || --found->second != 0) return false;
  errno = EIO;
  return true;
}

template <typename Function>
Function *real(Function * /*declared*/, const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

void note(const std::string &call) {
  if (inTest) calls.push_back(call);
}

void reset() {
  inTest = true;
  now = kStart;
  sleptMs = 0;
  beforeRename = afterRename = afterAccept = nullptr;
  ownerName = groupName = failingStatement = "";
  countdown.clear();
  statements.clear();
  calls.clear();
}

}  // namespace

void failCall(const std::string &function, int nth) { countdown[function] = nth; }

void failStatement(const std::string &beginning, int code) {
  failingStatement = beginning;
  statementCode = code;
}

Rows takeStatements() { return std::exchange(statements, {}); }
Rows takeCalls() { return std::exchange(calls, {}); }

std::string printed(const std::string &command) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE *)> pipe(
      popen(("LC_ALL=C; export LC_ALL; " + command).c_str(), "r"), pclose);
  EXPECT_NE(pipe, nullptr);
  std::string text;
  for (int c; (c = fgetc(pipe.get())) != EOF;) text += static_cast<char>(c);
  return text;
}

}  // namespace collector

using namespace collector;

CollectorTest::CollectorTest() { reset(); }

CollectorTest::~CollectorTest() {
  reset();
  connections::closeLeft();
}

void CollectorTest::makeFiles() {
  { const MailLogger made(10, 1000); }
  connections::closeLeft();
  log.take();
  takeStatements();
  takeCalls();
}

// ---- in place of the system's

#define REPLACED extern "C" __attribute__((visibility("default")))

REPLACED time_t time(time_t *result) noexcept {
  if (result != nullptr) *result = now;
  return now;
}

REPLACED int usleep(useconds_t microseconds) {
  sleptMs += static_cast<long>(microseconds / 1000);
  return 0;
}

REPLACED int select(int count, fd_set *reads, fd_set *writes, fd_set *excepts,
                    timeval *patience) {
  note("select " + std::to_string(patience->tv_sec) + " " +
       std::to_string(patience->tv_usec));
  if (fails("select")) return -1;
  timeval none{};
  const int ready = real(&select, "select")(count, reads, writes, excepts, &none);
  if (ready == 0) now += patience->tv_sec;
  return ready;
}

REPLACED int socket(int domain, int type, int protocol) noexcept {
  return fails("socket") ? -1 : real(&socket, "socket")(domain, type, protocol);
}

REPLACED int bind(int fd, const sockaddr *address, socklen_t length) noexcept {
  note("bind " + std::to_string(length));
  return fails("bind") ? -1 : real(&bind, "bind")(fd, address, length);
}

REPLACED int listen(int fd, int backlog) noexcept {
  note("listen " + std::to_string(backlog));
  return fails("listen") ? -1 : real(&listen, "listen")(fd, backlog);
}

REPLACED int accept4(int fd, sockaddr *address, socklen_t *length, int flags) {
  EXPECT_EQ(address, nullptr);
  if (fails("accept4")) return -1;
  const int sender = real(&accept4, "accept4")(fd, address, length, flags);
  note("accept " + std::to_string(sender));
  if (sender >= 0 && afterAccept) afterAccept();
  return sender;
}

REPLACED int close(int fd) {
  note("close " + std::to_string(fd));
  return real(&close, "close")(fd);
}

REPLACED int rename(const char *from, const char *to) noexcept {
  if (fails("rename")) return -1;
  if (beforeRename) beforeRename();
  const int result = real(&rename, "rename")(from, to);
  if (result == 0 && afterRename) afterRename();
  return result;
}

REPLACED DIR *opendir(const char *name) {
  return fails("opendir") ? nullptr : real(&opendir, "opendir")(name);
}

REPLACED dirent *readdir(DIR *dir) {
  if (fails("readdir")) return nullptr;
  return real(&readdir, "readdir64")(dir);
}

REPLACED passwd *getpwuid(uid_t uid) {
  passwd *found = real(&getpwuid, "getpwuid")(uid);
  if (ownerName.empty()) return found;
  static passwd named;
  named.pw_name = ownerName.data();
  return &named;
}

REPLACED group *getgrgid(gid_t gid) {
  group *found = real(&getgrgid, "getgrgid")(gid);
  if (groupName.empty()) return found;
  static group named;
  named.gr_name = groupName.data();
  return &named;
}

// ---- in place of SQLite's; opening and closing are watched by connections.cpp

namespace {

// Takes the code with which the statement has to fail; 0: it may run.
int refusal(const char *text) {
  if (failingStatement.empty() ||
      strncmp(text, failingStatement.c_str(), failingStatement.size()) != 0)
    return 0;
  failingStatement.clear();
  return statementCode;
}

// What SQLite calls while `function` runs is its own affair.
template <typename Function, typename... Arguments>
int forward(Function *function, const char *name, Arguments... arguments) {
  const bool nested = std::exchange(inSQLite, true);
  const int code = real(function, name)(arguments...);
  inSQLite = nested;
  return code;
}

}  // namespace

REPLACED int sqlite3_exec(sqlite3 *db, const char *text,
                          int (*callback)(void *, int, char **, char **), void *argument,
                          char **message) {
  if (!inSQLite) {
    statements.emplace_back(text);
    if (const int code = refusal(text)) return code;
  }
  return forward(&sqlite3_exec, "sqlite3_exec", db, text, callback, argument, message);
}

REPLACED int sqlite3_prepare_v2(sqlite3 *db, const char *text, int size,
                                sqlite3_stmt **statement, const char **rest) {
  if (!inSQLite) {
    statements.emplace_back(text);
    if (const int code = refusal(text)) return code;
  }
  return forward(&sqlite3_prepare_v2, "sqlite3_prepare_v2", db, text, size, statement,
                 rest);
}
