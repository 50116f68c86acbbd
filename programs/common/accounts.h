// The users and groups to which aliases refer.

#ifndef POSTWELL_PROGRAMS_ACCOUNTS_H_
#define POSTWELL_PROGRAMS_ACCOUNTS_H_

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

class Accounts {
 public:
  virtual ~Accounts() = default;

  // The local part under which mail for the user is delivered; empty without such a
  // user.
  virtual std::string mailbox(const std::string &user) const = 0;

  // Sets the users of the group, sorted. False without such a group.
  virtual bool members(const std::string &group,
                       std::vector<std::string> *users) const = 0;
};

// The accounts of this machine, as the name service switch knows them.
class SystemAccounts : public Accounts {
 public:
  // A user "DOMAIN\name" or "name@domain" is looked up as it stands, then by its bare
  // name.
  std::string mailbox(const std::string &user) const override;

  // The members that the group lists and the users whose primary group it is. Throws
  // std::runtime_error when the host cannot list its users.
  bool members(const std::string &group, std::vector<std::string> *users) const override;

 private:
  // Asking the name service costs a round trip: each question is asked once.
  mutable std::map<std::string, std::string> mailboxes_;
  mutable std::optional<std::multimap<gid_t, std::string>> usersByGroup_;
};

#endif  // POSTWELL_PROGRAMS_ACCOUNTS_H_
