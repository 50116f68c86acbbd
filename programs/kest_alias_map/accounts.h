// The accounts of this machine, as the name service switch knows them.

#ifndef POSTWELL_PROGRAMS_ACCOUNTS_H_
#define POSTWELL_PROGRAMS_ACCOUNTS_H_

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "alias_map.h"

class SystemAccounts : public Accounts {
 public:
  // A user "DOMAIN\name" or "name@domain" is looked up as it stands, then by its bare
  // name.
  std::string mailbox(const std::string &user) const override;

  // The members that the group lists and the users whose primary group it is.
  bool members(const std::string &group, std::vector<std::string> *users) const override;

 private:
  // Asking the name service costs a round trip: each question is asked once.
  mutable std::map<std::string, std::string> mailboxes_;
  mutable std::multimap<gid_t, std::string> usersByGroup_;
  mutable bool usersListed_ = false;
};

#endif  // POSTWELL_PROGRAMS_ACCOUNTS_H_
