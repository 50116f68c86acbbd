// From the aliases and their members to the text of Postfix's alias database.

#ifndef POSTWELL_PROGRAMS_ALIAS_MAP_H_
#define POSTWELL_PROGRAMS_ALIAS_MAP_H_

#include <alias.h>

#include <map>
#include <string>
#include <vector>

// What the aliases refer to outside themselves.
class Accounts {
 public:
  virtual ~Accounts() = default;

  // The name under which mail for the user is delivered; empty without such a user.
  virtual std::string mailbox(const std::string &user) const = 0;

  // The users of the group. False without such a group.
  virtual bool members(const std::string &group,
                       std::vector<std::string> *users) const = 0;
};

struct AliasMap {
  std::string text;                   // aliases(5), sorted by name
  std::vector<std::string> problems;  // what was left out and why, a sentence each
};

// The map of these aliases, each with its members. A member that does not exist, that
// the format cannot carry safely, or that would make a circle is left out and told;
// an alias without a member left is left out too. Names that differ in case alone are
// one alias, as they are to Postfix. "postmaster" and "MAILER-DAEMON" are always there.
AliasMap makeAliasMap(const std::map<std::string, std::vector<MemberInfo>> &aliases,
                      const Accounts &accounts);

// Whether the text is a mail address that the alias database carries as an address:
// what it takes for a command, a file or an include is none.
bool isSafeAddress(const std::string &text);

// Whether the text can be the name of an alias: a local part, printable, at most 64
// bytes (RFC 5321, 4.5.3.1.1).
bool isAliasName(const std::string &text);

#endif  // POSTWELL_PROGRAMS_ALIAS_MAP_H_
