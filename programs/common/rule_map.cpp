// Rules come from a table that anything may have written: what cannot be a key or a
// value as it stands is left out, so that no rule adds a line or an option.

#include "common/rule_map.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <system_error>

#include "common/alias_table.h"
#include "common/host_name.h"
#include "common/postfix_map.h"
#include "common/standard_streams.h"
#include "common/text.h"

namespace {

constexpr char kFile[] = "/var/packages/Postwell/etc/postwell.db";
constexpr char kLocks[] = "/run/postwell/";

bool isBeyondAscii(char c) { return static_cast<unsigned char>(c) >= 0x80; }

// The turn of one of the makers of a map, which has it while this object lives: a map of
// rules that were read earlier must not take the place of one of later rules. Ordinary
// users must not be able to hold it, hence the mode.
class Turn {
 public:
  explicit Turn(const std::string &program) {
    const std::string path = kLocks + program + ".lock";
    std::error_code unmade;  // then it cannot be opened either
    std::filesystem::create_directories(kLocks, unmade);
    fd_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd_ >= 0 && flock(fd_, LOCK_EX) == 0) return;
    throw std::runtime_error("cannot lock " + path + ": " +
                             std::generic_category().message(errno) + " (run as root)");
  }
  ~Turn() { close(fd_); }
  Turn(const Turn &) = delete;
  Turn &operator=(const Turn &) = delete;

 private:
  int fd_;
};

std::string makeAndReplace(const std::string &program,
                           const std::function<RuleMaps()> &make,
                           const std::function<std::string(const RuleMaps &)> &replace) {
  const Turn turn(program);
  const RuleMaps made = make();
  for (const std::string &problem : made.problems)
    std::cerr << program << ": " << problem << '\n';
  return replace(made);
}

// Whether a text that is in force was made of any rules.
bool holdsRules(const std::string &text) {
  struct stat file;
  return stat(text.c_str(), &file) == 0 && file.st_size > 0;
}

}  // namespace

std::string replaceRuleMaps(const RuleMaps &made) {
  const std::string failure = replacePostfixMaps(made.maps);
  return failure.empty() ? "" : failure + "; the old map stays in force";
}

bool isRuleAddress(const std::string &text) {
  const size_t at = text.find('@');
  return at != std::string::npos && isRuleAccount(text.substr(0, at)) &&
         isHostName(text.substr(at + 1));
}

bool isRuleAccount(const std::string &text) {
  // a line that begins so is a comment
  if (text.empty() || text.front() == '#' || !isUtf8(text)) return false;
  if (std::none_of(text.begin(), text.end(), isBeyondAscii)) return isLocalPart(text);
  std::string plain = text;
  std::replace_if(plain.begin(), plain.end(), isBeyondAscii, 'x');
  return isLocalPart(plain);
}

void readRuleRows(const char *query, const std::vector<std::string> &texts,
                  const std::function<void(const TableRow &)> &take) {
  switch (readTable(kFile, query, take)) {
    case TableRead::kDone:
      return;
    case TableRead::kMissing:
      if (std::none_of(texts.begin(), texts.end(), holdsRules)) return;
      throw std::runtime_error(std::string("there is no ") + kFile);
    case TableRead::kDamaged:
      throw std::runtime_error("the rules are damaged: " + restoreAdvice(kFile));
    default:
      throw std::runtime_error(std::string("cannot read ") + kFile +
                               " (run as root; the system log may tell why)");
  }
}

int runMapMaker(const std::string &program, int argc,
                const std::function<RuleMaps()> &make,
                const std::function<std::string(const RuleMaps &)> &replace,
                const std::function<std::string()> &tell) noexcept {
  keepStandardStreams();
  if (argc != 1) {
    std::cerr << "usage: " << program << "\n  takes no arguments\n";
    return 2;
  }
  try {
    std::string failure = makeAndReplace(program, make, replace);
    if (failure.empty()) failure = tell();
    if (failure.empty()) return 0;
    std::cerr << program << ": " << failure << '\n';
  } catch (const std::exception &error) {  // the rules, or memory
    std::cerr << program << ": " << error.what() << "; the map is as it was\n";
  }
  return 1;
}
