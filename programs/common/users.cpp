// Asks the host: it knows which accounts are people's.

#include "common/users.h"

#include <kestsdk.h>

#include <memory>

bool listUsers(const std::string &accountType, std::vector<std::string> *users) {
  KLIBCSzList *list = KLIBCSzListAlloc(1024);
  if (list == nullptr) return false;
  bool complete = KESTUserEnum(&list, KEST_USER_LOCAL) >= 0;
  if (accountType == "ldap" || accountType == "win")
    complete = complete && KESTUserEnum(&list, KEST_USER_DIRECTORY) >= 0;
  const std::unique_ptr<KLIBCSzList, void (*)(KLIBCSzList *)> owner(list,
                                                                    KLIBCSzListFree);
  for (int i = 0; const char *const user = KLIBCSzListGet(list, i); ++i)
    users->emplace_back(user);
  return complete;
}

std::string homeOf(const std::string &user) {
  char home[4096];
  int result;
  if (user.find('\\', 1) != std::string::npos)
    result = KESTDomainUserHomePathGet(user.c_str(), home, sizeof home);
  else if (user.find('@', 1) != std::string::npos)
    result = KESTLDAPUserHomePathGet(user.c_str(), home, sizeof home);
  else
    return "/var/services/homes/" + user;
  return result < 0 ? "" : home;
}
