// The aliases with their members, and what may be among them.

#ifndef POSTWELL_PROGRAMS_ALIAS_TABLE_H_
#define POSTWELL_PROGRAMS_ALIAS_TABLE_H_

#include <alias.h>

#include <functional>
#include <list>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "common/accounts.h"

using AliasTable = std::map<std::string, std::list<MemberInfo>>;

// Reads the file whole, which is made first when it is missing. Returns what went wrong,
// empty when nothing did; a damaged file is left as it is.
std::string readAliases(Alias &file, AliasTable *aliases);

// What keeps the name from being that of an alias, as the end of a sentence that
// begins "the name …"; empty when there is nothing to say.
std::string aliasNameProblem(const std::string &name);

// Whether the text is a mail address that the alias database carries as an address:
// what it takes for a command, a file or an include is none.
bool isMailAddress(const std::string &text);

// The same of the part before the "@".
bool isLocalPart(const std::string &text);

// Where mail for a member goes: USER, a mailbox; ALIAS, an alias in small letters;
// EXTADDR, an address.
struct Destination {
  MemberType type;
  std::string name;
};

struct Resolved {
  std::vector<Destination> destinations;
  // Who cannot be reached (the member, or a user of the group), and why.
  std::vector<std::pair<std::string, std::string>> unreachable;
};

// Sets what the member comes to; nothing at all for a group without users. `isAlias`
// knows the names of all aliases in small letters.
void resolve(const MemberInfo &member,
             const std::function<bool(const std::string &)> &isAlias,
             const Accounts &accounts, Resolved *result);

#endif  // POSTWELL_PROGRAMS_ALIAS_TABLE_H_
