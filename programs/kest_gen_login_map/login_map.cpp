// From user names to the table of sender logins.
//
// The keys are bare local parts, which Postfix tries for every domain that it
// delivers locally: the map need not follow a change of the mail domains. The
// values are logins as Dovecot reports them with auth_username_format=%Ln.

#include "login_map.h"

#include <algorithm>
#include <map>
#include <set>

#include "common/text.h"

namespace {

constexpr size_t kLongestName = 255;

// Blanks and commas part the logins of a line, and Postfix skips a line that is
// not UTF-8.
bool tableCanCarry(const std::string &user) {
  return user.size() <= kLongestName && user.find_first_of(" ,") == std::string::npos &&
         !hasControl(user) && isUtf8(user);
}

// A line that began with one of these would be a comment or a quoted key.
bool isKey(const std::string &name) {
  return !name.empty() && name.front() != '#' && name.front() != '"';
}

}  // namespace

LoginMap makeLoginMap(const std::vector<std::string> &users) {
  LoginMap map;
  std::map<std::string, std::set<std::string>> owners;
  for (const std::string &user : users) {
    const std::string login = lowerCase(user.substr(0, user.find('@')));
    const size_t backslash = login.rfind('\\');
    const std::string bare =
        backslash == std::string::npos ? login : login.substr(backslash + 1);
    if (!tableCanCarry(user) || !isKey(bare)) {
      map.leftOut.push_back(user);
      continue;
    }
    owners[bare].insert({login, bare});
  }
  std::sort(map.leftOut.begin(), map.leftOut.end());

  for (const auto &[bare, logins] : owners) {
    char separator = '\t';
    map.text += bare;
    for (const std::string &login : logins) {
      map.text += separator + login;
      separator = ',';
    }
    map.text += '\n';
  }
  return map;
}
