#include "command_line.h"

#include <grp.h>
#include <kestcore.h>
#include <netdb.h>
#include <security.h>
#include <smtp.h>
#include <spam.h>
#include <spam_filter.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "cli.h"
#include "command.h"
#include "common/text.h"
#include "fuzz.h"

namespace {

namespace fs = std::filesystem;

constexpr char kEtc[] = "/var/packages/Postwell/etc";
constexpr char kSettings[] = "/var/packages/Postwell/etc/postwell.conf";
constexpr char kBlocklists[] = "/var/packages/Postwell/etc/spamlist.conf";
constexpr char kTarget[] = "/var/packages/Postwell/target/";
constexpr char kFolder[] = "/var/services/fuzz";
constexpr char kInput[] = "/var/services/input";

int programResult = 0;

void makeEmpty(const fs::path &folder) {
  fs::create_directories(folder);
  for (const auto &entry : fs::directory_iterator(folder)) fs::remove_all(entry.path());
}

// A command line has a process of its own elsewhere, in which these are loaded anew.
void forgetSettings() {
  Spam &spam = *Spam::getInstance();
  spam.setRequiredScore(5);
  spam.setEnableRewrite(false);
  spam.setRewriteSubject("*****SPAM*****");
  spam.setReportMachanism(1);
  spam.setUseAutoLearn(false);
  spam.setSpamLearnThreshold(12);
  spam.setNonSpamLearnThreshold(0.1F);
  spam.setUseAutoWhiteList(false);
  DNSBL::getInstance()->setDNSBList({});
  Security &security = *Security::getInstance();
  security.setEnableSpamassassin(false);
  security.setEnableDNSBL(false);
  security.setEnableAntiVirus(false);
  security.setSpamCleanInterval(30);
}

// Both as a stream and as a file that is opened anew.
void giveInput(const std::string &text) {
  writeWhole(kInput, text);
  expect(freopen(kInput, "r", stdin) != nullptr, "there is no standard input");
  expect(fileno(stdin) == STDIN_FILENO, "standard input is elsewhere");
}

bool isAscii(const std::string &text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return c == '\n' || (c >= ' ' && c <= '~'); });
}

// Letters of every language, but nothing that a terminal obeys: controls, and what turns
// the order of the letters or ends a line.
bool isPlain(const std::string &text) {
  if (!isUtf8(text)) return false;
  const auto byte = [&text](size_t at) {
    return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U;
  };
  for (size_t i = 0; i < text.size(); i++) {
    const unsigned first = byte(i), second = byte(i + 1), third = byte(i + 2);
    if ((first < ' ' && first != '\n') || first == 0x7f) return false;
    if (first == 0xc2 && second < 0xa0) return false;
    if (first == 0xe2 && second == 0x80 && third >= 0xa8 && third <= 0xae) return false;
    if (first == 0xe2 && second == 0x81 && third >= 0xa6 && third <= 0xa9) return false;
  }
  return true;
}

// Holds what is written to a stream while it lives.
class Catch {
 public:
  explicit Catch(std::ostream &stream) : stream_(stream), old_(stream.rdbuf(&buffer_)) {}
  ~Catch() { stream_.rdbuf(old_); }
  Catch(const Catch &) = delete;
  Catch &operator=(const Catch &) = delete;

  std::string text() const { return buffer_.str(); }

 private:
  std::stringbuf buffer_;
  std::ostream &stream_;
  std::streambuf *old_;
};

Outcome checked(const std::vector<std::string> &words, const std::function<int()> &run) {
  const std::string before = readWhole(kSettings);
  const Catch out(std::cout), err(std::cerr);
  const Outcome outcome = {run(), out.text(), err.text()};
  expect(outcome.status >= 0 && outcome.status <= 2, "the exit status is another");
  const bool isJson = std::find(words.begin(), words.end(), "--json") != words.end() &&
                      nlohmann::json::accept(outcome.out);
  expect(isAscii(outcome.err), "what it complains of is not plain");
  expect(isJson ? isAscii(outcome.out) : isPlain(outcome.out), "the output is not plain");
  expect(outcome.status == 0 || !outcome.err.empty(), "it fails and does not say why");
  expect(outcome.status != 2 || readWhole(kSettings) == before,
         "what is refused changes the settings");
  return outcome;
}

}  // namespace

void beginPackage() {
  makeEmpty(kEtc);
  makeEmpty(kFolder);
  for (const char *folder : {"etc/maillog", "etc/spamassassin"})
    makeEmpty(kTarget + std::string(folder));
  makeEmpty("/var/services/homes/daemon");
  writeWhole(kSettings,
             "# by hand\nsmtp_enabled=\"yes\"\nsmtp_hostname=\"mx.example.org\"\n");
  writeWhole(kBlocklists, "[RBL server]\n[RHSBL server]\n");
  expect(chdir(kFolder) == 0, "there is no folder to work in");
  umask(022);  // which a command for a user changes
  letPrograms(true);
  expect(SMTP::SetPostfixConfig() == 0, "the package's programs would be run");
  forgetSettings();
}

void letPrograms(bool succeed) { programResult = succeed ? 0 : -1; }

Outcome runCommand(const std::vector<std::string> &words, const std::string &input) {
  std::vector<const char *> arguments = {"postwell"};
  for (const std::string &word : words) arguments.push_back(word.c_str());
  giveInput(input);
  return checked(words, [&arguments] {
    return runCli(static_cast<int>(arguments.size()), arguments.data());
  });
}

Outcome runNoun(void (*addNoun)(CLI::App &), const std::vector<std::string> &words) {
  return checked(words, [&] {
    CLI::App app("", "postwell");
    addNoun(app);
    try {
      app.parse(std::vector<std::string>(words.rbegin(), words.rend()));
      return 0;
    } catch (const Failure &failure) {
      std::cerr << failure.what() << '\n';
      return static_cast<int>(failure.status());
    }
  });
}

// A command line makes some ten thousand allocations: noting where each was made, and
// looking for leaks, takes longer than all else. The programs' tests look for leaks.
extern "C" const char *__asan_default_options() {
  return "detect_leaks=0:malloc_context_size=2";
}

// ---- in the place of the system's

extern "C" {

int KLIBCExec(const char *program, const char * /*arg1*/, const char * /*arg2*/,
              const char * /*arg3*/, const char * /*arg4*/) {
  const std::string path = program;
  expect(path.rfind(kTarget, 0) == 0 || path == "/bin/cp", "another's program is run");
  return programResult;
}

// A file that was made is opened again into the same place, and the connection that made
// it stays open behind it: not for thousands of files.
int sqlite3_open(const char *path, sqlite3 **connection) {
  if (*connection != nullptr)
    expect(sqlite3_close(*connection) == SQLITE_OK, "a connection cannot be closed");
  return sqlite3_open_v2(path, connection, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                         nullptr);
}

int getaddrinfo(const char * /*name*/, const char * /*service*/,
                const addrinfo * /*hints*/, addrinfo ** /*found*/) {
  return EAI_AGAIN;
}

int initgroups(const char * /*user*/, gid_t /*group*/) { return 0; }
int setresgid(gid_t /*real*/, gid_t /*effective*/, gid_t /*saved*/) { return 0; }
int setresuid(uid_t real, uid_t effective, uid_t saved) {
  expect(real != 0 && effective == real && saved == real, "root's rights are kept");
  return 0;
}

}  // extern "C"
