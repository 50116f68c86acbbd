// The free helpers of postwell.h: sections of text files, splitting and joining,
// trimming, and what the package's programs need at their start.
//
// Odd, and relied upon: Trim() removes blanks before newlines, so a blank that stands
// before a final newline survives; a header that ends a section must begin in the first
// column, while the one that begins it need not.

#include <signal.h>
#include <sys/sysinfo.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "alias.h"
#include "internal/line_reader.h"
#include "internal/log.h"
#include "kestcore.h"
#include "kestsdk.h"
#include "postwell.h"
#include "smtp.h"

using internal::LineReader;

namespace {

// The anti-virus scanner's need, compared with sysinfo's raw `totalram`: the machines
// in question count it in bytes.
constexpr unsigned long kAntiVirusMemory = 0x18000000;

bool findHeader(LineReader &reader, const char *section) {
  while (reader.next()) {
    if (KLIBCIFileIsSection(reader.line(), reader.length()) &&
        KLIBCIFileMatchSection(reader.line(), reader.length(), section))
      return true;
  }
  return false;
}

void removeTrailing(std::string &text, char c) {
  text.erase(text.find_last_not_of(c) + 1);
}

struct FreeList {
  void operator()(KLIBCSzList *list) const { KLIBCSzListFree(list); }
};

}  // namespace

int GetSectionContent(const char *path, const char *section,
                      std::list<std::string> &lines) noexcept try {
  if (path == nullptr || section == nullptr) {
    LOG_ERROR("Bad Parameter");
    return -1;
  }
  LineReader reader(path);
  if (!reader.isOpen()) {
    LOG_ERROR("Open %s fail", path);
    return -1;
  }
  if (!findHeader(reader, section)) return 0;
  while (reader.next() && *reader.line() != '[') {
    if (KLIBCStrTrimSpace(reader.line(), 0) < 1) {
      LOG_ERROR("KLIBCStrTrimSpace : %s fail", reader.line());  // a blank line, too
      continue;
    }
    lines.emplace_back(reader.line());
  }
  return 0;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

std::string StringJoin(const std::list<std::string> &items, const char *separator) {
  std::string joined;
  for (const std::string &item : items) {
    if (&item != &items.front()) joined += separator;
    joined += item;
  }
  return joined;
}

std::list<std::string> StringSplit(const char *text, const char *delimiter) {
  std::list<std::string> pieces;
  const size_t width = strlen(delimiter);
  while (*text != '\0') {
    const char *end = width == 0 ? nullptr : strstr(text, delimiter);
    const size_t length = end == nullptr ? strlen(text) : static_cast<size_t>(end - text);
    if (length > 0) pieces.emplace_back(text, length);
    text += end == nullptr ? length : length + width;
  }
  return pieces;
}

void Trim(std::string &text) noexcept {
  removeTrailing(text, ' ');
  text.erase(0, text.find_first_not_of(' '));
  removeTrailing(text, '\n');
}

std::string TrimDomainName(const std::string &name) {
  const size_t backslash = name.rfind('\\');
  if (backslash != std::string::npos && backslash > 0) return name.substr(backslash + 1);
  const size_t at = name.find('@');
  if (at != std::string::npos && at > 0) return name.substr(0, at);
  return name;
}

int ProcessEnvInit(const char *pidFile, bool foreground, bool keepDescriptors) noexcept {
  const pid_t running = KLIBCReadPidFile(pidFile);
  if (running > 0) {
    kill(running, SIGTERM);  // it may be gone already
    sleep(2);
  }
  if (!foreground && daemon(0, keepDescriptors ? 1 : 0) != 0) return -1;
  unlink(pidFile);  // a missing one is as good
  return KLIBCProcPidFileCreate(pidFile) < 0 ? -1 : 0;
}

bool IsSupportAntiVirus() noexcept {
  struct sysinfo info;
  if (sysinfo(&info) != 0) {
    LOG_ERROR("get sysinfo fail, %s", strerror(errno));
    return false;
  }
  return info.totalram >= kAntiVirusMemory;
}

std::map<std::string, bool> GetValidMap() noexcept try {
  SMTP smtp;
  Alias alias;
  KLIBCSzList *users = KLIBCSzListAlloc(512);
  if (users == nullptr) {
    LOG_ERROR("out of memory");
    return {};
  }
  // Neither failure ends this: the users are valid names without any alias.
  smtp.load();
  if (alias.getError() == 0) alias.load();
  const int enumerated = KESTUserEnum(&users, KEST_USER_LOCAL);
  const std::unique_ptr<KLIBCSzList, FreeList> owned(users);  // where it moved to
  if (enumerated < 0) {
    LOG_ERROR("fail to enum local user");
    return {};
  }
  std::map<std::string, bool> names;
  for (int i = 0; const char *user = KLIBCSzListGet(users, i); i++) names[user] = true;
  for (const std::string &name : alias.getAliasNameList()) names[name] = true;
  return names;
} catch (const std::bad_alloc &) {
  LOG_ERROR("out of memory");
  return {};
}
