// Users and groups from the local files as well as from a domain or directory, by the
// C library's lookups. Which users there are at all, the host says.

#include "common/accounts.h"

#include <grp.h>
#include <postwell.h>
#include <pwd.h>
#include <smtp.h>

#include <algorithm>
#include <stdexcept>

#include "common/users.h"

namespace {

bool isUser(const std::string &name) { return getpwnam(name.c_str()) != nullptr; }

// Dovecot drops an "@domain" and keeps a "DOMAIN\", and Postfix would take a local part
// with an "@" for an address elsewhere.
std::string findMailbox(const std::string &user) {
  const std::string bare = TrimDomainName(user);
  if (isUser(user)) return user.find('@') == std::string::npos ? user : bare;
  return bare != user && isUser(bare) ? bare : "";
}

const group *findGroup(const std::string &name) {
  const group *found = getgrnam(name.c_str());
  return found != nullptr ? found : getgrnam(TrimDomainName(name).c_str());
}

std::multimap<gid_t, std::string> listUsersByGroup() {
  SMTP settings;
  std::vector<std::string> users;
  if (settings.loadSMTPSetting() != 0 || !listUsers(settings.getAccountType(), &users))
    throw std::runtime_error("the host cannot list its users");
  std::multimap<gid_t, std::string> byGroup;
  for (const std::string &name : users)
    if (const passwd *user = getpwnam(name.c_str())) byGroup.emplace(user->pw_gid, name);
  return byGroup;
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
  users->clear();
  for (char **member = found->gr_mem; *member != nullptr; ++member)
    users->emplace_back(*member);
  const gid_t gid = found->gr_gid;
  if (!usersByGroup_) usersByGroup_ = listUsersByGroup();
  const auto [first, last] = usersByGroup_->equal_range(gid);
  for (auto entry = first; entry != last; ++entry) users->push_back(entry->second);
  std::sort(users->begin(), users->end());
  users->erase(std::unique(users->begin(), users->end()), users->end());
  return true;
}
