// The rules for account and password of the relay, in one place: the command
// line tool refuses what the generator of the password table could not write.

#include "common/relay_login.h"

#include "common/text.h"

namespace {

// The longest secret that the host's encryption stores in the settings file.
constexpr size_t kLongestPassword = 215;

std::string lineProblem(const std::string &text) {
  if (hasControl(text)) return "must not hold a newline, NUL or other control character";
  if (!isUtf8(text)) return "must be UTF-8";
  return "";
}

}  // namespace

std::string accountProblem(const std::string &account) {
  if (account.find(':') != std::string::npos) return "must not hold a colon";
  if (!account.empty() && (account.front() == ' ' || account.back() == ' '))
    return "must not begin or end with a blank";
  return lineProblem(account);
}

std::string passwordProblem(const std::string &password) {
  if (password.size() > kLongestPassword)
    return "must have at most " + std::to_string(kLongestPassword) + " bytes";
  if (!password.empty() && password.back() == ' ') return "must not end with a blank";
  return lineProblem(password);
}
