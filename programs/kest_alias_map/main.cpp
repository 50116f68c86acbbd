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

#include <iostream>
#include <string>

#include "common/alias_map.h"
#include "common/alias_table.h"
#include "common/postfix_map.h"
#include "common/standard_streams.h"

namespace {

constexpr char kProgram[] = "kest_alias_map";
constexpr char kAsItWas[] = "; the map is as it was";

void say(const std::string &message) { std::cerr << kProgram << ": " << message << '\n'; }

int run() {
  Alias file;
  // Never freed: taking it apart would take a tenth of the whole run.
  static AliasTable &aliases = *new AliasTable;
  const std::string unread = readAliases(file, &aliases);
  if (!unread.empty()) {
    say(unread + kAsItWas);
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
  keepStandardStreams();
  if (argc != 1) {
    std::cerr << "usage: " << kProgram << "\n  takes no arguments\n";
    return 2;
  }
  try {
    return run();
  } catch (const std::exception &error) {  // the host, or memory
    say(error.what() + std::string(kAsItWas));
    return 1;
  }
}
