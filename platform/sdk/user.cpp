// Users, asked from the name service switch: the accounts of this machine, and those
// that sssd, winbind or nslcd bring in from a domain or directory.

#include <pwd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "kestsdk.h"

namespace {

struct UidRange {
  unsigned long first = 1000;
  unsigned long last = 60000;
};

// The UIDs that this machine gives to people; what the file does not say keeps
// Debian's value.
UidRange readUidRange() {
  UidRange range;
  std::ifstream file("/etc/login.defs");
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line);
    std::string name;
    unsigned long value;
    if (!(words >> name >> value)) continue;
    if (name == "UID_MIN") range.first = value;
    if (name == "UID_MAX") range.last = value;
  }
  return range;
}

bool isOfType(const passwd &user, int type, const UidRange &range) noexcept {
  if (type == KEST_USER_LOCAL)
    return user.pw_uid >= range.first && user.pw_uid <= range.last;
  return user.pw_uid > range.last && strcmp(user.pw_name, "nobody") != 0;
}

// getpwent() leaves any errno at the end of the list; these mean that it broke off.
bool isFailure(int error) noexcept {
  return error == EINTR || error == EIO || error == EMFILE || error == ENFILE ||
         error == ENOMEM || error == ERANGE;
}

int enumerate(KLIBCSzList **list, int type) {
  const UidRange range = readUidRange();
  int count = 0;
  bool pushed = true;
  setpwent();
  errno = 0;
  while (const passwd *user = pushed ? getpwent() : nullptr) {
    if (isOfType(*user, type, range)) {
      pushed = KLIBCSzListPush(list, user->pw_name) > 0;
      ++count;
    }
    errno = 0;
  }
  const bool failed = !pushed || isFailure(errno);
  endpwent();
  return failed ? -1 : count;
}

// Looks the user up under the very name given.
int homeOf(const char *name, std::string *home) {
  constexpr size_t kEnough = size_t{1} << 20;  // no account entry is this long
  for (std::vector<char> space(1024); space.size() <= kEnough;
       space.resize(2 * space.size())) {
    passwd entry;
    passwd *found = nullptr;
    const int error = getpwnam_r(name, &entry, space.data(), space.size(), &found);
    if (error == ERANGE) continue;
    if (found == nullptr || *found->pw_dir == '\0') return -1;
    *home = found->pw_dir;
    return 0;
  }
  return -1;
}

int copyHome(const char *user, char *buffer, int size) noexcept {
  if (buffer == nullptr || size <= 0) return -1;
  buffer[0] = '\0';
  if (user == nullptr || *user == '\0') return -1;
  try {
    std::string home;
    if (homeOf(user, &home) < 0 || home.size() >= static_cast<size_t>(size)) return -1;
    memcpy(buffer, home.c_str(), home.size() + 1);
    return 0;
  } catch (const std::exception &) {  // memory is short
    return -1;
  }
}

}  // namespace

int KESTUserEnum(KLIBCSzList **list, int type) {
  if (list == nullptr || *list == nullptr) return -1;
  if (type != KEST_USER_LOCAL && type != KEST_USER_DIRECTORY) return -1;
  try {
    return enumerate(list, type);
  } catch (const std::exception &) {  // memory is short
    return -1;
  }
}

int KESTDomainUserHomePathGet(const char *user, char *buffer, int size) {
  return copyHome(user, buffer, size);
}

int KESTLDAPUserHomePathGet(const char *user, char *buffer, int size) {
  return copyHome(user, buffer, size);
}
