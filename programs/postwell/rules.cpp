// The rules, each returning what is wrong with a value in a sentence that goes
// on behind the option's name.

#include "rules.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <utility>

#include "common/alias_table.h"
#include "common/host_name.h"
#include "common/relay_login.h"
#include "common/text.h"

namespace {

// The value goes into the message, quoted.
std::string wrong(const std::string &must, const std::string &value) {
  return must + ", not \"" + value + "\"";
}

bool isScore(const std::string &text) {
  const std::string digits = text.substr(text.rfind('-', 0) == 0 ? 1 : 0);
  const size_t point = std::min(digits.find('.'), digits.size());
  const std::string whole = digits.substr(0, point), decimals = digits.substr(point);
  return !whole.empty() && whole.size() <= 4 && isMadeOf(digits, ".") &&
         digits.find_first_not_of("0123456789.") == std::string::npos &&
         decimals.size() != 1 && decimals.size() <= 3 && decimals.rfind('.') != 1;
}

Rule makeRule(std::string takes, std::function<std::string(std::string &)> check) {
  return {std::move(takes), CLI::Validator(std::move(check), "")};
}

}  // namespace

Rule yesNo() {
  return makeRule("yes|no", [](std::string &value) -> std::string {
    const std::string word = lowerCase(value);
    if (word == "yes" || word == "on" || word == "true")
      value = "true";
    else if (word == "no" || word == "off" || word == "false")
      value = "false";
    else
      return wrong("must be yes or no", value);
    return "";
  });
}

Rule wholeNumber(int least, int most) {
  return makeRule("NUMBER", [least, most](std::string &value) -> std::string {
    int number = 0;
    const char *const end = value.data() + value.size();
    const auto [stop, error] = std::from_chars(value.data(), end, number);
    if (error != std::errc() || stop != end || number < least || number > most)
      return wrong("must be a whole number from " + std::to_string(least) + " to " +
                       std::to_string(most),
                   value);
    value = std::to_string(number);  // CLI11 would take "010" for octal
    return "";
  });
}

Rule accountType() {
  return makeRule("local|ldap|win", [](std::string &value) -> std::string {
    if (value == "local" || value == "ldap" || value == "win") return "";
    return wrong("must be local, ldap or win", value);
  });
}

Rule hostName() {
  return makeRule("NAME", [](std::string &value) -> std::string {
    if (value.empty() || isHostName(value)) return "";
    return wrong("must be a host or domain name such as mail.example.org", value);
  });
}

Rule relayServer() {
  return makeRule("HOST", [](std::string &value) -> std::string {
    if (value.empty() || isHostName(value) || isAddress(value)) return "";
    return wrong("must be a host name or an IP address, without brackets or port", value);
  });
}

Rule relayAccount() {
  return makeRule("ACCOUNT", [](std::string &value) { return accountProblem(value); });
}

Rule domainName() {
  return makeRule("NAME", [](std::string &value) -> std::string {
    if (!isHostName(value))
      return wrong("must be a domain name such as example.org", value);
    value = lowerCase(value);
    return "";
  });
}

Rule blocklistName() {
  return makeRule("NAME", [](std::string &value) -> std::string {
    if (!isHostName(value) || value.find('.') == std::string::npos)
      return wrong(
          "must be the domain name of a list such as list.example.org (--kind says what "
          "it lists)",
          value);
    value = lowerCase(value);
    return "";
  });
}

Rule aliasName() {
  return makeRule("NAME", [](std::string &value) -> std::string {
    const std::string problem = aliasNameProblem(value);
    return problem.empty() ? "" : wrong(problem, value);
  });
}

Rule mailAddress() {
  return makeRule("ADDRESS", [](std::string &value) -> std::string {
    if (isMailAddress(value)) return "";
    return wrong("must be a mail address such as bob@example.org", value);
  });
}

Rule mailTarget() {
  return makeRule("ADDRESS", [](std::string &value) -> std::string {
    if (isMailAddress(value) || isMailAddress(value + "@localhost")) return "";
    return wrong("must be a mail address or the name of an account", value);
  });
}

Rule forwardAddress() {
  return makeRule("ADDRESS", [](std::string &value) -> std::string {
    // a comment; and what marks the line that makes the vacation reply
    const bool isOther =
        value[0] == '#' || value.find("/bin/vacation") != std::string::npos;
    if (isMailAddress(value) && !isOther) return "";
    return wrong("must be one mail address such as bob@example.org", value);
  });
}

Rule replySubject() {
  return makeRule("TEXT", [](std::string &value) -> std::string {
    constexpr size_t kLongest = 200;
    const bool isFit = !value.empty() && value.size() <= kLongest && isUtf8(value) &&
                       !hasControl(value) && value.front() != ' ' && value.back() != ' ';
    return isFit ? ""
                 : wrong("must be 1 to 200 bytes of UTF-8 without control characters",
                         value);
  });
}

Rule someText() {
  return makeRule("TEXT", [](std::string &value) -> std::string {
    return value.empty() ? "must not be empty" : "";
  });
}

Rule oneOf(const std::vector<std::string> &words) {
  std::string all, sentence;
  for (size_t i = 0; i < words.size(); i++) {
    all += (i == 0 ? "" : "|") + words[i];
    sentence += (i == 0 ? "" : i + 1 < words.size() ? ", " : " or ") + words[i];
  }
  return makeRule(all, [words, sentence](std::string &value) -> std::string {
    const auto found = std::find(words.begin(), words.end(), lowerCase(value));
    if (found == words.end()) return wrong("must be " + sentence, value);
    value = std::to_string(found - words.begin());
    return "";
  });
}

Rule moment(DayEnd end) {
  return makeRule("TIME", [end](std::string &value) -> std::string {
    const auto found = parseMoment(value, time(nullptr), end);
    if (!found)
      return wrong(
          "must be a time such as 2026-11-21, \"2026-11-21 14:30\", yesterday, \"2 "
          "hours ago\" or -2h",
          value);
    value = std::to_string(*found);
    return "";
  });
}

Rule byteCount() {
  return makeRule("BYTES", [](std::string &value) -> std::string {
    long long number = 0;
    const char *const end = value.data() + value.size();
    const auto [stop, error] = std::from_chars(value.data(), end, number);
    const std::string unit = lowerCase({stop, end});
    const int factor = unit.empty() ? 1 : unit == "k" ? 1024 : unit == "m" ? 1 << 20 : 0;
    if (error != std::errc() || factor == 0 || number < 0 || number > INT_MAX / factor)
      return wrong("must be a number of bytes below 2048M such as 500, 10K or 5M", value);
    value = std::to_string(number * factor);
    return "";
  });
}

Rule score() {
  return makeRule("SCORE", [](std::string &value) -> std::string {
    if (isScore(value)) return "";
    return wrong("must be a number below 10000 with two decimals at most", value);
  });
}

Rule positiveScore() {
  return makeRule("SCORE", [](std::string &value) -> std::string {
    const bool isPositive =
        value.rfind('-', 0) != 0 && value.find_first_of("123456789") != std::string::npos;
    if (isScore(value) && isPositive) return "";
    return wrong("must be above 0 and below 10000 with two decimals at most", value);
  });
}

Rule subjectTag() {
  return makeRule("TEXT", [](std::string &value) -> std::string {
    constexpr size_t kLongest = 200;
    const bool isPlain = !value.empty() && value.size() <= kLongest &&
                         printable(value) == value && value.front() != ' ' &&
                         value.back() != ' ';
    return isPlain ? "" : wrong("must be 1 to 200 printable ASCII characters", value);
  });
}

std::string ruleFileProblem(const std::string &name) {
  constexpr char kEnd[] = ".cf";
  constexpr size_t kLongest = 100;
  if (name.size() <= sizeof kEnd - 1 || name.size() > kLongest ||
      name.compare(name.size() - (sizeof kEnd - 1), std::string::npos, kEnd) != 0)
    return "must end in .cf and have 100 characters at most";
  if (name.front() == '.' || name.front() == '-' || !isMadeOf(name, "._-"))
    return "must consist of letters, digits, and \".\", \"_\" or \"-\" behind the first";
  if (name == "local.cf") return "is that of the spam filter's own settings";
  return "";
}

Rule ruleFile() {
  return makeRule("NAME", [](std::string &value) -> std::string {
    const std::string problem = ruleFileProblem(value);
    return problem.empty() ? "" : wrong(problem, value);
  });
}
