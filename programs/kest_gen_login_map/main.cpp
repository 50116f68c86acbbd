// kest_gen_login_map: makes the map that says which login may send under which
// local part, when senders are restricted to their own address.
//
// Run by the library after a change of the account type or domain, and by whoever
// adds or removes users. It asks the host for the users (map generators may use
// the host's own functions besides the public headers) and the settings for where
// accounts come from: with a domain or directory, its users are listed as well.
//
// Users whose names cannot stand in the map are named on standard error and left
// out: they own no address, while everyone else's map is made.
//
// Exit status: 0 done, 1 failed with the old map in force, 2 wrong usage.

#include <kestsdk.h>
#include <smtp.h>

#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "common/postfix_map.h"
#include "common/text.h"
#include "login_map.h"

namespace {

constexpr char kProgram[] = "kest_gen_login_map";

void say(const std::string &message) { std::cerr << kProgram << ": " << message << '\n'; }

// Appends the users that log in with this account type. False when the host
// cannot list them all: a map of some users would lock the others out.
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

int run() {
  SMTP settings;
  if (settings.loadSMTPSetting() != 0) {
    say("cannot read the settings (run as root; is the package installed?); the map is "
        "as it was");
    return 1;
  }
  std::vector<std::string> users;
  if (!listUsers(settings.getAccountType(), &users)) {
    say("the host cannot list its users; the map is as it was");
    return 1;
  }
  const LoginMap map = makeLoginMap(users);
  for (const std::string &user : map.leftOut)
    say("left out, no map line can carry this name: \"" + printable(user) + "\"");
  const std::string problem = replacePostfixMap("login_map", map.text, MapFormat::kTable);
  if (problem.empty()) return 0;
  say(problem + "; the old map stays in force");
  return 1;
}

}  // namespace

int main(int argc, char **) {
  if (argc != 1) {
    std::cerr << "usage: " << kProgram << "\n  takes no arguments\n";
    return 2;
  }
  try {
    return run();
  } catch (const std::exception &) {  // of the standard library: memory alone
    say("out of memory; the map is as it was");
    return 1;
  }
}
