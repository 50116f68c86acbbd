// Users of the test's choice: takes the place of the host's own functions in a program.
//
// KESTUserEnum() lists one name a line of /tmp/users-local and /tmp/users-directory; a
// missing file is a host that cannot list its users. The name service knows the users,
// with their homes, and groups of /tmp/passwd and /tmp/group, in the format of those in
// /etc.

#include <grp.h>
#include <kestsdk.h>
#include <pwd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>

int KESTUserEnum(KLIBCSzList **list, int type) {
  std::ifstream in(type == KEST_USER_LOCAL ? "/tmp/users-local" : "/tmp/users-directory");
  if (!in) return -1;
  int count = 0;
  for (std::string name; std::getline(in, name); ++count)
    if (KLIBCSzListPush(list, name.c_str()) < 0) return -1;
  return count;
}

using File = std::unique_ptr<std::FILE, int (*)(std::FILE *)>;

passwd *getpwnam(const char *name) {
  const File file(fopen("/tmp/passwd", "re"), fclose);
  while (passwd *entry = file ? fgetpwent(file.get()) : nullptr)
    if (strcmp(entry->pw_name, name) == 0) return entry;
  return nullptr;
}

#pragma GCC visibility push(default)  // the library calls these as well

int KESTDomainUserHomePathGet(const char *user, char *buffer, int size) {
  const passwd *const entry = getpwnam(user);
  if (entry == nullptr) return -1;
  return snprintf(buffer, static_cast<size_t>(size), "%s", entry->pw_dir) < size ? 0 : -1;
}

int KESTLDAPUserHomePathGet(const char *user, char *buffer, int size) {
  return KESTDomainUserHomePathGet(user, buffer, size);
}

#pragma GCC visibility pop

group *getgrnam(const char *name) {
  const File file(fopen("/tmp/group", "re"), fclose);
  while (group *entry = file ? fgetgrent(file.get()) : nullptr)
    if (strcmp(entry->gr_name, name) == 0) return entry;
  return nullptr;
}
