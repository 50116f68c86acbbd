// Which login may send under which local part, as the source of a Postfix table.

#ifndef POSTWELL_PROGRAMS_LOGIN_MAP_H_
#define POSTWELL_PROGRAMS_LOGIN_MAP_H_

#include <string>
#include <vector>

struct LoginMap {
  std::string text;  // a line "local-part<TAB>login,login…" each, sorted
  std::vector<std::string> leftOut;  // users whose names no line can carry, as they came
};

// The map of these users: "name", "DOMAIN\name" or "name@domain". The local part
// is the bare name in small letters. The logins are what Dovecot makes of the
// user's name; a user of a domain owns the bare name as well. Users with the same
// bare name share its line. The order of the users does not matter.
LoginMap makeLoginMap(const std::vector<std::string> &users);

#endif  // POSTWELL_PROGRAMS_LOGIN_MAP_H_
