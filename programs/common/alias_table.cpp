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

#include <DBHandler.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "common/host_name.h"
#include "common/text.h"

namespace {

constexpr char kFile[] = "/var/packages/Postwell/etc/alias.db";
constexpr char kQuery[] =
    "SELECT alias, member, type FROM alias_info_table ORDER BY alias;";
constexpr unsigned int kPatienceMs = 10000;  // with someone who is writing

constexpr size_t kLongestLocalPart = 64;  // RFC 5321, 4.5.3.1.1
constexpr char kInstructions[] = "|/:\\";
constexpr char kAtomSpecials[] = ".!#$%&'*+-=?^_`{}|/~";  // RFC 5322, 3.2.3

int readRows(sqlite3 *database, AliasTable *aliases) {
  sqlite3_stmt *prepared = nullptr;
  int code = sqlite3_prepare_v2(database, kQuery, -1, &prepared, nullptr);
  const std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt *)> query(prepared,
                                                                     sqlite3_finalize);
  const auto text = [&query](int column) {
    const unsigned char *value = sqlite3_column_text(query.get(), column);
    return value == nullptr ? "" : reinterpret_cast<const char *>(value);
  };
  if (code != SQLITE_OK) return code;
  auto alias = aliases->end();
  while ((code = sqlite3_step(query.get())) == SQLITE_ROW) {
    if (alias == aliases->end() || alias->first != text(0))
      alias = aliases->try_emplace(aliases->end(), text(0));  // they come sorted
    MemberInfo &member = alias->second.emplace_back();
    member.strName = text(1);
    member.type = static_cast<MemberType>(sqlite3_column_int(query.get(), 2));
  }
  return code;
}

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
  DBHandler database(kFile, "");
  database.setBusyTimeout(kPatienceMs);
  if (database.connect() != SQLITE_OK) return kUnreadable;
  switch (readRows(database.getDB(), aliases)) {
    case SQLITE_DONE:
      return "";
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
      return std::string("the aliases are damaged: restore ") + kFile +
             "\nfrom a backup, or remove it to begin anew";
    default:
      return kUnreadable;
  }
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
  return !local.empty() && local.size() <= kLongestLocalPart &&
         std::strchr("|/-.", local.front()) == nullptr && local.back() != '.' &&
         isMadeOf(local, kAtomSpecials) && local.find("..") == std::string::npos &&
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
