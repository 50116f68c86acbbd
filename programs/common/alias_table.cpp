// Reads the aliases, and judges names by what they are: an account, an alias, an address.
//
// In an alias database a member that begins with "|", "/" or ":include:" is a command, a
// file or a list, quoted or not, and "\" before a name skips the user's own forwarding.
// Nothing of the kind may come from the table. The command line tool refuses what the
// maker of the database would leave out, so the rules stand here for both.

#include "common/alias_table.h"

#include "common/host_name.h"
#include "common/text.h"

namespace {

constexpr size_t kLongestLocalPart = 64;  // RFC 5321, 4.5.3.1.1
constexpr char kInstructions[] = "|/:\\";
constexpr char kAtom[] =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.!#$%&'*+-=?^_`{}|/~";

// What keeps the text from being a local name in the database.
std::string localNameProblem(const std::string &name) {
  if (name.empty()) return "must not be empty";
  if (hasControl(name) || !isUtf8(name))
    return "must be UTF-8 without control characters";
  if (name.find('@') != std::string::npos) return "must not hold an @";
  if (name.find_first_of(kInstructions) == 0)
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
  if (file.getError() != 0 || file.load() != 0) return kUnreadable;
  const std::list<std::string> names = file.getAliasNameList();
  for (const std::string &name : names) {
    std::list<MemberInfo> members;
    if (file.loadMember(name, members) != 0) return kUnreadable;
    (*aliases)[name].assign(members.begin(), members.end());
  }
  // A damaged file is made anew without a word: its names are others from then on.
  // Loading again appends the names that it now has.
  if (file.load() != 0) return kUnreadable;
  std::list<std::string> twice = names;
  twice.insert(twice.end(), names.begin(), names.end());
  if (file.getAliasNameList() == twice) return "";
  return "the aliases were damaged: alias.db has been made anew and holds \"root\" "
         "alone;\n"
         "restore it from a backup or add the aliases again";
}

std::string aliasNameProblem(const std::string &name) {
  if (name.size() > kLongestLocalPart)
    return "must have at most " + std::to_string(kLongestLocalPart) + " bytes";
  return localNameProblem(name);
}

bool isMailAddress(const std::string &text) {
  const size_t at = text.find('@');
  if (at == std::string::npos) return false;
  const std::string local = text.substr(0, at);
  return aliasNameProblem(local).empty() &&
         local.find_first_not_of(kAtom) == std::string::npos && local.front() != '.' &&
         local.back() != '.' && local.find("..") == std::string::npos &&
         isHostName(text.substr(at + 1));
}

Resolved resolve(const MemberInfo &member, const std::set<std::string> &aliases,
                 const Accounts &accounts) {
  const std::string &name = member.strName;
  Resolved result;
  if (member.type == USER) {
    resolveUser(name, accounts, &result);
  } else if (member.type == GROUP) {
    resolveGroup(name, accounts, &result);
  } else if (member.type == ALIAS && aliases.count(lowerCase(name)) != 0) {
    result.destinations.push_back({ALIAS, lowerCase(name)});
  } else if (member.type == EXTADDR && isMailAddress(name)) {
    result.destinations.push_back({EXTADDR, name});
  } else {
    const std::string reason = member.type == ALIAS     ? "there is no such alias"
                               : member.type == EXTADDR ? "it is no mail address"
                                                        : "it is of an unknown kind";
    result.unreachable.emplace_back(name, reason);
  }
  return result;
}
