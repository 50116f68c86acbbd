// kest_alias_map: makes Postfix's alias database from the aliases in alias.db.
//
// Run by DaemonConfSet.sh after a change of the aliases, and by whoever changes the
// users of a group. It reads through the library's Alias (without saving, which would
// run this program again) and asks the name service for users and groups.
//
// What cannot be in the database (a member that does not exist, a circle of aliases, a
// name that the format would take for a command) is named on standard error and left
// out; the rest is made.
//
// Exit status: 0 done, 1 failed with the old database in force, 2 wrong usage.

#include <alias.h>

#include <cstdio>
#include <exception>
#include <map>
#include <string>
#include <vector>

#include "accounts.h"
#include "alias_map.h"
#include "common/postfix_map.h"

namespace {

constexpr char kProgram[] = "kest_alias_map";

void say(const std::string &message) {
  fprintf(stderr, "%s: %s\n", kProgram, message.c_str());
}

// All aliases with their members. False when the file cannot be read whole.
bool readAliases(std::map<std::string, std::vector<MemberInfo>> *aliases) {
  Alias table;
  if (table.getError() != 0 || table.load() != 0) return false;
  for (const std::string &name : table.getAliasNameList()) {
    std::list<MemberInfo> members;
    if (table.loadMember(name, members) != 0) return false;
    aliases->emplace(name, std::vector<MemberInfo>(members.begin(), members.end()));
  }
  return true;
}

int run() {
  std::map<std::string, std::vector<MemberInfo>> aliases;
  if (!readAliases(&aliases)) {
    say("cannot read the aliases (the system log tells why); the map is as it was");
    return 1;
  }
  const AliasMap map = makeAliasMap(aliases, SystemAccounts());
  for (const std::string &problem : map.problems) say(problem);
  const std::string failure = replacePostfixMap("aliases", map.text, MapFormat::kAliases);
  if (failure.empty()) return 0;
  say(failure + "; the old map stays in force");
  return 1;
}

}  // namespace

int main(int argc, char **) {
  if (argc != 1) {
    fprintf(stderr, "usage: %s\n  takes no arguments\n", kProgram);
    return 2;
  }
  try {
    return run();
  } catch (const std::exception &) {  // of the standard library: memory alone
    say("out of memory; the map is as it was");
    return 1;
  }
}
