// Reads the aliases, and judges names by what they are: an account, an alias, an address.
//
// The file is read by one query of its own: the library asks for each alias's members by
// themselves, which takes ten times as long, and makes a damaged file anew without a
// word, which would take everybody's aliases out of the mail system.
//
// In an alias database a member that begins with "|", "/" or ":include:" is a command, a
// file or a list, quoted or not, and "\" before a name skips the user's own forwarding.
// Nothing of the kind may come from the table. The command line tool refuses what the
// maker of the database would leave out, so the rules stand here for both.

#include "common/alias_table.h"

#include <unistd.h>

#include <cstring>

#include "common/host_name.h"
#include "common/table_reader.h"
#include "common/text.h"

namespace {

constexpr char kFile[] = "/var/packages/Postwell/etc/alias.db";
constexpr char kQuery[] =
    "SELECT alias, member, type FROM alias_info_table ORDER BY alias;";

constexpr size_t kLongestLocalPart = 64;  // RFC 5321, 4.5.3.1.1
constexpr char kInstructions[] = "|/:\\";
constexpr char kAtomSpecials[] = ".!#$%&'*+-=?^_`{}|/~";  // RFC 5322, 3.2.3

// What keeps the text from being a local name in the database.
std::string localNameProblem(const std::string &name) {
  if (name.empty()) return "must not be empty";
  if (hasControl(name) || !isUtf8(name))
    return "must be UTF-8 without control characters";
  if (name.find_first_of("@%!") != std::string::npos)
    return "must not hold @, % or !";  // with which mail is routed elsewhere
  if (std::strchr(kInstructions, name.front()) != nullptr)
    return "must not begin with a character that makes it a command or a file";
  if (name.front() == '-') return "must not begin with a hyphen";  // nor will Postfix
  if (name.front() == ' ' || name.back() == ' ')
    return "must not begin or end with a blank";
  return "";
}

void resolveUser(const std::string &user, const Accounts &accounts, Resolved *result) {
  const std::string mailbox = accounts.mailbox(user);
  if (mailbox.empty())
    result->unreachable.emplace_back(user, "there is no such user");
  else if (!localNameProblem(mailbox).empty())
    result->unreachable.emplace_back(user, "the name " + localNameProblem(mailbox));
  else
    result->destinations.push_back({USER, mailbox});
}

void resolveGroup(const std::string &group, const Accounts &accounts, Resolved *result) {
  std::vector<std::string> users;
  if (!accounts.members(group, &users))
    result->unreachable.emplace_back(group, "there is no such group");
  for (const std::string &user : users) resolveUser(user, accounts, result);
}

}  // namespace

std::string readAliases(Alias &file, AliasTable *aliases) {
  static const char kUnreadable[] = "cannot read the aliases (the system log tells why)";
  if (file.getError() != 0) return kUnreadable;
  if (access(kFile, F_OK) != 0 && file.load() != 0) return kUnreadable;  // makes it
  auto alias = aliases->end();
  const auto take = [aliases, &alias](const TableRow &row) {
    if (alias == aliases->end() || alias->first != row.text(0))
      alias = aliases->try_emplace(aliases->end(), row.text(0));  // they come sorted
    MemberInfo &member = alias->second.emplace_back();
    member.strName = row.text(1);
    member.type = static_cast<MemberType>(row.integer(2));
  };
  switch (readTable(kFile, kQuery, take)) {
    case TableRead::kDone:
      return "";
    case TableRead::kDamaged:
      return "the aliases are damaged: " + restoreAdvice(kFile);
    default:
      return kUnreadable;
  }
}

std::string aliasNameProblem(const std::string &name) {
  if (name.size() > kLongestLocalPart)
    return "must have at most " + std::to_string(kLongestLocalPart) + " bytes";
  return localNameProblem(name);
}

bool isLocalPart(const std::string &text) {
  return !text.empty() && text.size() <= kLongestLocalPart &&
         std::strchr("|/~-.", text.front()) == nullptr && text.back() != '.' &&
         isMadeOf(text, kAtomSpecials) && text.find("..") == std::string::npos;
}

bool isMailAddress(const std::string &text) {
  const size_t at = text.find('@');
  return at != std::string::npos && isLocalPart(text.substr(0, at)) &&
         isHostName(text.substr(at + 1));
}

void resolve(const MemberInfo &member,
             const std::function<bool(const std::string &)> &isAlias,
             const Accounts &accounts, Resolved *result) {
  const std::string &name = member.strName;
  result->destinations.clear();
  result->unreachable.clear();
  if (member.type == USER) {
    resolveUser(name, accounts, result);
  } else if (member.type == GROUP) {
    resolveGroup(name, accounts, result);
  } else if (member.type == ALIAS && isAlias(lowerCase(name))) {
    result->destinations.push_back({ALIAS, lowerCase(name)});
  } else if (member.type == EXTADDR && isMailAddress(name)) {
    result->destinations.push_back({EXTADDR, name});
  } else {
    const std::string reason = member.type == ALIAS     ? "there is no such alias"
                               : member.type == EXTADDR ? "it is no mail address"
                                                        : "it is of an unknown kind";
    result->unreachable.emplace_back(name, reason);
  }
}
