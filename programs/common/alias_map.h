// From the aliases and their members to the text of Postfix's alias database.

#ifndef POSTWELL_PROGRAMS_ALIAS_MAP_H_
#define POSTWELL_PROGRAMS_ALIAS_MAP_H_

#include <string>
#include <vector>

#include "common/alias_table.h"

struct AliasMap {
  std::string text;                   // aliases(5), sorted by name
  std::vector<std::string> problems;  // what was left out and why, a sentence each
  std::vector<std::string> loops;     // those of them without which mail would loop
};

// The map of these aliases. A member that does not exist, that the format cannot carry
// safely, or that would make a circle or too long a chain is left out and told; an alias
// without a member left is left out too. Names that differ in case alone are one alias,
// as they are to Postfix. "postmaster" and "MAILER-DAEMON" are always there.
//
// A user of the same name as an alias is that alias, as it is to Postfix, but for the
// alias itself: "bob: bob, eve" delivers to bob's mailbox as well.
AliasMap makeAliasMap(const AliasTable &aliases, const Accounts &accounts);

#endif  // POSTWELL_PROGRAMS_ALIAS_MAP_H_
