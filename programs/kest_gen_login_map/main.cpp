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

#include <smtp.h>

#include <iostream>
#include <string>
#include <vector>

#include "common/postfix_map.h"
#include "common/standard_streams.h"
#include "common/text.h"
#include "common/users.h"
#include "login_map.h"

namespace {

constexpr char kProgram[] = "kest_gen_login_map";

void say(const std::string &message) { std::cerr << kProgram << ": " << message << '\n'; }

int run() {
  SMTP settings;
  if (settings.loadSMTPSetting() != 0) {
    say("cannot read the settings (run as root; is the package installed?); the map is "
        "as it was");
    return 1;
  }
  std::vector<std::string> users;
  if (!listUsers(settings.getAccountType(), &users)) {  // some would lock the others out
    say("the host cannot list its users; the map is as it was");
    return 1;
  }
  const LoginMap map = makeLoginMap(users);
  for (const std::string &user : map.leftOut)
    say("left out, no map line can carry this name: " + inQuotes(user));
  const std::string problem = replacePostfixMap("login_map", map.text, MapFormat::kTable);
  if (problem.empty()) return 0;
  say(problem + "; the old map stays in force");
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
  } catch (const std::exception &) {  // of the standard library: memory alone
    say("out of memory; the map is as it was");
    return 1;
  }
}
