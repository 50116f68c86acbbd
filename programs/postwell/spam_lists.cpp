// postwell blacklist|whitelist list|add|remove|import|export: whose mail is always spam,
// or never.
//
// Both are one table, in which a name is in one list only: adding it to one takes it from
// the other, which is told. Only what the spam filter can be told of is added; what is
// stored already can always be listed and removed.

#include "common/spam_lists.h"

#include <smtp.h>
#include <strings.h>

#include <iostream>

#include "common/text.h"
#include "nouns.h"
#include "rule_list.h"

namespace {

using Entries = std::list<BlackWhite>;

constexpr char kFollower[] = "the spam filter";

const std::vector<std::string> kTypes = {"sender", "recipient"};

const std::array<std::string, 3> kHelps = {"An account, in every local domain",
                                           "A mail address",
                                           "A domain with its subdomains"};

// One of the two lists, and what it is called.
struct List {
  BlackWhiteType type;
  const char *noun;
  const char *help;
};

constexpr List kLists[] = {{TYPE_BLACK, "blacklist", "Whose mail is always spam"},
                           {TYPE_WHITE, "whitelist", "Whose mail is never spam"}};

Type typeOf(const std::string &word) {
  return word == "sender" ? TYPE_SENDER : TYPE_RECIPIENT;
}

Values readAll(BlackWhiteType list) {
  Values all = Values::array();
  for (const BlackWhite &entry : readSpamEntries())
    if (entry.blackWhite == list)
      all.push_back({{"type", spamTypeWord(entry.type)},
                     {"kind", nameKindWord(entry.nameType)},
                     {"name", entry.name}});
  return all;
}

Spam &instance() {
  Spam *const spam = Spam::getInstance();
  if (spam != nullptr) return *spam;
  throw SMTP().loadSMTPSetting() == 0 ? rulesUnavailable() : settingsUnreadable();
}

// Whichever list they are in, which is one only.
bool isSameKind(const BlackWhite &one, const BlackWhite &other) {
  return one.type == other.type && one.nameType == other.nameType;
}

bool isSameKindInList(const BlackWhite &one, const BlackWhite &other) {
  return isSameKind(one, other) && one.blackWhite == other.blackWhite;
}

std::string described(const BlackWhite &entry) {
  return spamTypeWord(entry.type) + ' ' + nameKindWord(entry.nameType) + ' ' +
         inQuotes(entry.name);
}

void publish() {
  if (Spam::GenerateBlackWhite() < 0)
    throw saveFailed(true,
                     "run \"/var/packages/Postwell/target/bin/kest_spam_blackwhite\"");
}

// Returns those that were there before.
Entries store(Entries entries) {
  Spam &spam = instance();
  const std::deque<BlackWhite> before = readSpamEntries();  // fails when damaged
  const StoredRules<BlackWhite> stored(before, isSameKind);
  stored.spell(&entries);
  if (spam.addBlackWhiteList(entries) != 0) throw rulesNotChanged();
  for (const BlackWhite &entry : entries)
    for (const BlackWhite &old : before)
      if (isSameKind(entry, old) && entry.name == old.name &&
          entry.blackWhite != old.blackWhite)
        std::cerr << "The " << described(entry) << " was in the other list.\n";
  publish();
  return stored.holding(entries, isSameKindInList);
}

void add(const Entries &entries) {
  for (const BlackWhite &entry : entries) {
    const std::string problem = spamEntryProblem(entry);
    if (!problem.empty())
      throw ruleRefused(entry.name, problem, nameKindExample(entry.nameType));
  }
  confirmAdded(entries.size(), store(entries), described, kFollower);
}

void remove(const Entries &wanted, const List &list) {
  Spam &spam = instance();
  const Entries entries = StoredRules<BlackWhite>(readSpamEntries(), isSameKindInList)
                              .named(wanted, list.noun, described);
  if (spam.deleteBlackWhiteList(entries) != 0) throw rulesNotChanged();
  publish();
  std::cout << counted(entries.size(), "rule") << " removed; " << kFollower
            << " follows.\n";
}

// ---- files

bool isSenderField(const std::string &field) {
  return strcasecmp(field.c_str(), "from:") == 0;
}

// The entry that a line "From: name yes" stands for, as the library's import reads it.
BlackWhite entryOf(const RuleImport::Line &line, BlackWhiteType list) {
  const std::string name = line.second.substr(0, line.second.find(' '));
  const bool isAddress = name.find('@') != std::string::npos;
  return {name, list, isSenderField(line.first) ? TYPE_SENDER : TYPE_RECIPIENT,
          isAddress ? NAME_ADDRESS : NAME_DOMAIN};
}

std::string judge(const RuleImport::Line &line, BlackWhiteType list) {
  if (!isSenderField(line.first) && strcasecmp(line.first.c_str(), "to:") != 0)
    return "it begins with neither From: nor To:";
  const size_t blank = line.second.rfind(' ');
  const std::string flag =
      blank == std::string::npos ? "" : line.second.substr(blank + 1);
  if (strcasecmp(flag.c_str(), "yes") != 0) return "it does not end with yes";
  if (line.second.find_first_not_of(' ', line.second.find(' ')) != blank + 1)
    return "it has more than three words";
  return spamEntryProblem(entryOf(line, list));
}

// ---- the command line

Entries entriesOf(const Names &names, const std::string &type, BlackWhiteType list) {
  Entries entries;
  for (const auto &[kind, name] : names)
    entries.push_back({name, list, typeOf(type), kind});
  return entries;
}

void addVerb(CLI::App &noun, const std::string &verb, const std::string &help,
             BlackWhiteType list, const std::function<void(const Entries &)> &run) {
  CLI::App *const command = noun.add_subcommand(verb, help);
  const auto names = addNames(*command, kHelps);
  const auto type = addWord(*command, "TYPE", kTypes, "What the rules look at");
  setExample(*command,
             "postwell " + noun.get_name() + ' ' + verb + " sender --domain example.org");
  command->callback([names, type, list, run] { run(entriesOf(names(), type(), list)); });
}

void addList(CLI::App &app, const List &list) {
  CLI::App &noun = addNoun(app, list.noun, list.help);
  const RuleNoun rules = {
      kTypes, {"name"}, [type = list.type] { return readAll(type); }, kFollower};
  addRuleList(noun, rules);
  addVerb(noun, "add", "Add rules", list.type, add);
  addVerb(noun, "remove", "Remove rules", list.type,
          [list](const Entries &entries) { remove(entries, list); });
  const auto storeLines = [type = list.type](const std::string &,
                                             const std::vector<RuleImport::Line> &lines) {
    Entries entries;
    for (const RuleImport::Line &line : lines) entries.push_back(entryOf(line, type));
    store(entries);
  };
  addRuleImport(noun, rules, FileHolds::kAllTypes,
                {[type = list.type](const std::string &, const RuleImport::Line &line) {
                   return judge(line, type);
                 },
                 storeLines, "FromOrTo: default no"});
  addRuleExport(noun, rules, FileHolds::kAllTypes,
                [type = list.type](const std::string &, const std::string &path) {
                  return instance().exportBlackWhite(type, path);
                });
}

}  // namespace

void addSpamLists(CLI::App &app) {
  for (const List &list : kLists) addList(app, list);
}
