// SpamAssassin takes an address with "*" and "?" for any letters, and for nothing else: a
// domain is written as "*@domain" and, for its subdomains, "*@*.domain". A name that
// holds one of the two itself, or what SpamAssassin takes for something else in a line,
// is left out; a "#", which would begin a comment, is escaped.
//
// An entry decides by its score of 100 or -100, which makes two of both lists that match
// the same mail cancel each other.

#include "common/spam_lists.h"

#include <kestcore.h>
#include <sys/stat.h>

#include <fstream>
#include <map>
#include <sstream>

#include "common/access_map.h"
#include "common/host_name.h"
#include "common/replace_file.h"
#include "common/text.h"

namespace {

// In the order of the table's index, which costs no sorting.
constexpr char kQuery[] =
    "SELECT name_type, name, type, blackwhite FROM blackwhite_table ORDER BY name_type, "
    "name, type;";
constexpr char kFile[] = "/var/packages/Postwell/target/etc/spam/blackwhite.cf";
constexpr char kService[] = "/var/packages/Postwell/target/scripts/SpamDaemon.sh";
constexpr char kRunning[] = "/run/postwell/spamd/spamd.pid";

bool isPlain(const std::string &name) {
  return name.find_first_of("*?\\(") == std::string::npos &&
         isMadeOf(name, "!#$%&'+/=^_`{|}~.-@");
}

// "sender blacklist", to say which entry is meant.
std::string listOf(const BlackWhite &entry) {
  return spamTypeWord(entry.type) +
         (entry.blackWhite == TYPE_WHITE ? " whitelist" : " blacklist");
}

// A recipient's white list is that by which SpamAssassin accepts all mail: the score of
// the other one lets spam of a high score pass as such.
const char *optionOf(const BlackWhite &entry) {
  if (entry.type == TYPE_SENDER)
    return entry.blackWhite == TYPE_BLACK ? "blocklist_from" : "welcomelist_from";
  return entry.blackWhite == TYPE_BLACK ? "blocklist_to" : "all_spam_to";
}

std::string escaped(std::string pattern) {
  for (size_t at = pattern.find('#'); at != std::string::npos;
       at = pattern.find('#', at + 2))
    pattern.insert(at, 1, '\\');
  return pattern;
}

class Builder {
 public:
  explicit Builder(const std::vector<std::string> &domains) : domains_(domains) {}

  void add(const BlackWhite &entry) {
    const std::string problem = spamEntryProblem(entry);
    if (!problem.empty()) return leaveOut(entry, problem);
    RuleKeys<BlackWhite> &keys = keys_[entry.type];
    if (entry.nameType != NAME_ACCOUNT)
      keys.add((entry.nameType == NAME_DOMAIN ? "*@" : "") + lowerCase(entry.name),
               entry);
    else
      for (const std::string &domain : domains_)
        keys.add(lowerCase(TrimDomainName(entry.name)) + '@' + domain, entry);
  }

  RuleMaps build() {
    MapText lists{"blackwhite", ""};
    for (const Type type : {TYPE_SENDER, TYPE_RECIPIENT})
      keys_[type].each(
          [&lists](const std::string &pattern, const BlackWhite &entry) {
            addLine(entry, escaped(pattern), &lists.text);
          },
          [this](const BlackWhite &entry, const BlackWhite &first) {
            compare(entry, first);
          });
    made_.maps.push_back(std::move(lists));
    return std::move(made_);
  }

 private:
  void leaveOut(const BlackWhite &entry, const std::string &reason) {
    made_.problems.push_back(listOf(entry) + " entry " + inQuotes(entry.name) +
                             " is left out: " + reason);
  }

  static void addLine(const BlackWhite &entry, const std::string &pattern,
                      std::string *text) {
    text->append(optionOf(entry)).append(1, ' ').append(pattern);
    if (entry.nameType == NAME_DOMAIN) text->append(" *@*.").append(pattern, 2);
    *text += '\n';
  }

  // The first entry of a key counts. What an account is in one domain, an entry on that
  // very address may say otherwise.
  void compare(const BlackWhite &entry, const BlackWhite &first) {
    if (first.blackWhite == entry.blackWhite ||
        (entry.nameType == NAME_ACCOUNT && first.nameType == NAME_ADDRESS))
      return;
    leaveOut(entry, "the " + listOf(first) + " entry " + inQuotes(first.name) +
                        " says otherwise");
  }

  const std::vector<std::string> &domains_;
  std::map<Type, RuleKeys<BlackWhite>> keys_;
  RuleMaps made_;
};

bool holds(const char *path, const std::string &text) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  return file.good() && content.str() == text;
}

bool isOlder(const timespec &one, const timespec &other) {
  return one.tv_sec != other.tv_sec ? one.tv_sec < other.tv_sec
                                    : one.tv_nsec < other.tv_nsec;
}

// Whether the filter has started since the lists were made. One that is starting may have
// read the old ones.
bool hasReadLists() {
  struct stat lists, running;
  return stat(kRunning, &running) == 0 && stat(kFile, &lists) == 0 &&
         isOlder(lists.st_mtim, running.st_mtim);
}

}  // namespace

std::deque<BlackWhite> readSpamEntries() {
  std::deque<BlackWhite> entries;
  readRuleRows(kQuery, {kFile}, [&entries](const TableRow &row) {
    entries.push_back({row.text(1), static_cast<BlackWhiteType>(row.integer(3)),
                       static_cast<Type>(row.integer(2)),
                       static_cast<NameType>(row.integer(0))});
  });
  return entries;
}

std::string spamTypeWord(Type type) { return accessTypeWord(type); }

std::string spamEntryProblem(const BlackWhite &entry) {
  if (entry.type != TYPE_SENDER && entry.type != TYPE_RECIPIENT)
    return "it is of an unknown type";
  if (entry.blackWhite != TYPE_BLACK && entry.blackWhite != TYPE_WHITE)
    return "it is in an unknown list";
  const bool isPlainName =
      isPlain(entry.nameType == NAME_ACCOUNT ? TrimDomainName(entry.name) : entry.name);
  switch (entry.nameType) {
    case NAME_ACCOUNT:
      return isPlainName && isRuleAccount(TrimDomainName(entry.name))
                 ? ""
                 : "it is no account name that the spam filter can take";
    case NAME_ADDRESS:
      return isPlainName && isRuleAddress(entry.name)
                 ? ""
                 : "it is no mail address that the spam filter can take";
    case NAME_DOMAIN:
      return isHostName(entry.name) ? "" : "it is no domain name";
    default:
      return "it is of an unknown kind";
  }
}

RuleMaps makeSpamLists(const std::deque<BlackWhite> &entries,
                       const std::vector<std::string> &domains) {
  Builder builder(domains);
  const auto isAccount = [](const BlackWhite &entry) {
    return entry.nameType == NAME_ACCOUNT;
  };
  for (const BlackWhite &entry : entries)
    if (!isAccount(entry)) builder.add(entry);
  for (const BlackWhite &entry : entries)
    if (isAccount(entry)) builder.add(entry);
  return builder.build();
}

std::string replaceSpamLists(const RuleMaps &made) {
  const std::string &text = made.maps.front().text;
  if (holds(kFile, text)) return "";
  const std::string failure = replaceFile(kFile, text);
  return failure.empty() ? "" : failure + "; the old lists stay in force";
}

std::string tellSpamFilter() {
  if (hasReadLists() || KLIBCExec(kService, "reload", nullptr, nullptr, nullptr) >= 0)
    return "";
  return "the lists are made, but the spam filter does not read them; the lines above "
         "tell why";
}
