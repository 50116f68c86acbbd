// Users and groups from the local files as well as from a domain or directory, by the
// C library's lookups. Which users there are at all, the host says.

#include "accounts.h"

#include <grp.h>
#include <kestsdk.h>
#include <postwell.h>
#include <pwd.h>

#include <algorithm>
#include <memory>

namespace {

bool isUser(const std::string &name) { return getpwnam(name.c_str()) != nullptr; }

std::string findMailbox(const std::string &user) {
  if (isUser(user)) return user;
  const std::string bare = TrimDomainName(user);
  return bare != user && isUser(bare) ? bare : "";
}

const group *findGroup(const std::string &name) {
  const group *found = getgrnam(name.c_str());
  return found != nullptr ? found : getgrnam(TrimDomainName(name).c_str());
}

std::multimap<gid_t, std::string> listUsersByGroup() {
  std::multimap<gid_t, std::string> users;
  KLIBCSzList *list = KLIBCSzListAlloc(1024);
  for (const int type : {KEST_USER_LOCAL, KEST_USER_DIRECTORY})
    if (list != nullptr) KESTUserEnum(&list, type);  // who is listed is counted in
  const std::unique_ptr<KLIBCSzList, void (*)(KLIBCSzList *)> owner(list,
                                                                    KLIBCSzListFree);
  for (int i = 0; const char *const name = KLIBCSzListGet(list, i); ++i)
    if (const passwd *user = getpwnam(name)) users.emplace(user->pw_gid, name);
  return users;
}

}  // namespace

std::string SystemAccounts::mailbox(const std::string &user) const {
  const auto known = mailboxes_.find(user);
  if (known != mailboxes_.end()) return known->second;
  return mailboxes_[user] = findMailbox(user);
}

bool SystemAccounts::members(const std::string &name,
                             std::vector<std::string> *users) const {
  const group *found = findGroup(name);
  if (found == nullptr) return false;
  const gid_t gid = found->gr_gid;
  for (char **member = found->gr_mem; *member != nullptr; ++member)
    users->emplace_back(*member);
  if (!usersListed_) usersByGroup_ = listUsersByGroup();
  usersListed_ = true;
  const auto [first, last] = usersByGroup_.equal_range(gid);
  for (auto entry = first; entry != last; ++entry) users->push_back(entry->second);
  std::sort(users->begin(), users->end());
  users->erase(std::unique(users->begin(), users->end()), users->end());
  return true;
}
