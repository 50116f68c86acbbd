// What "access", "bcc", "blacklist" and "whitelist" share: listing rules in pages, and
// importing and exporting them as lines of text.

#ifndef POSTWELL_PROGRAMS_RULE_LIST_H_
#define POSTWELL_PROGRAMS_RULE_LIST_H_

#include <postwell.h>

#include <algorithm>
#include <array>
#include <deque>
#include <functional>
#include <iostream>
#include <list>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "command.h"
#include "common/text.h"

// A noun's rules. Each is an object whose keys are those of the JSON output; "type" and
// "name" are among them.
struct RuleNoun {
  std::vector<std::string> types;     // "sender", …
  std::vector<std::string> searched;  // the keys that a search looks into
  std::function<Values()> readAll;    // all rules
  std::string follower;               // which daemon follows
};

// Adds "list" with "--type", "--search", "--offset", "--limit" and "--json".
void addRuleList(CLI::App &noun, const RuleNoun &rules);

// Adds a required operand that is one of the words; the result tells which was given.
std::function<std::string()> addWord(CLI::App &command, const std::string &name,
                                     const std::vector<std::string> &words,
                                     const std::string &help);

// Stores rules of a type from the pairs of first word and rest that the lines of a file
// hold. `judge` says what is wrong with one, empty when nothing is; `store` stores the
// others. A line that is `head` is none.
struct RuleImport {
  using Line = std::pair<std::string, std::string>;
  std::function<std::string(const std::string &type, const Line &)> judge;
  std::function<void(const std::string &type, const std::vector<Line> &)> store;
  std::string head;
};

// Which rules a file holds: those of one type, which the command line names, or all.
enum class FileHolds { kOneType, kAllTypes };

// Adds "import", which tells how many lines were taken and which were skipped, and why.
// Of a file of all types the type is empty.
void addRuleImport(CLI::App &noun, const RuleNoun &rules, FileHolds holds,
                   const RuleImport &import);

// Adds "export"; `write` gives 0 when the file holds the rules of the type.
void addRuleExport(
    CLI::App &noun, const RuleNoun &rules, FileHolds holds,
    const std::function<int(const std::string &type, const std::string &path)> &write);

// The kinds of names that rules of accounts, addresses and domains have.
struct NameKind {
  NameType type;
  const char *word;
  const char *option;
  const char *example;
};
extern const std::array<NameKind, 3> kNameKinds;

// "account", "address" or "domain"; "unknown" for what else a table may hold.
std::string nameKindWord(NameType type);

// A name of that kind.
std::string nameKindExample(NameType type);

// The names of a command line, each with its kind.
using Names = std::vector<std::pair<NameType, std::string>>;

// Adds "--account", "--address" and "--domain", which may be repeated, with these helps
// in this order. At least one must be given; asking for them ends the command otherwise.
std::function<Names()> addNames(CLI::App &command,
                                const std::array<std::string, 3> &helps);

// A name that no rule can have, and why; how one is written.
Failure ruleRefused(const std::string &name, const std::string &problem,
                    const std::string &example);

// The rules cannot be opened; they could not be changed; there is no such one.
Failure rulesUnavailable();
Failure rulesNotChanged();
Failure noSuchRule(const std::string &described, const std::string &noun);

// The stored rules, found by their names whatever the case of the letters: a map has one
// key for all spellings, of which one rule alone would count.
template <class Rule>
class StoredRules {
 public:
  using Same = bool (*)(const Rule &, const Rule &);  // but for the names

  StoredRules(std::deque<Rule> rules, Same isSame)
      : rules_(std::move(rules)), isSame_(isSame) {
    for (const Rule &rule : rules_) byName_.emplace(lowerCase(rule.name), &rule);
  }

  StoredRules(const StoredRules &) = delete;
  StoredRules &operator=(const StoredRules &) = delete;

  // Gives the rules the names under which they are to be stored: as there, if there is
  // one, and else in small letters.
  void spell(std::list<Rule> *rules) const {
    for (Rule &rule : *rules) {
      const std::list<Rule> found = like(rule);
      rule.name = found.empty() ? lowerCase(rule.name) : found.front().name;
    }
  }

  // Those of the rules, named as they are to be stored, that are there already; `isEqual`
  // compares all but the names.
  std::list<Rule> holding(const std::list<Rule> &rules, Same isEqual) const {
    std::list<Rule> held;
    for (const Rule &rule : rules) {
      const std::list<Rule> found = like(rule);
      if (std::any_of(found.begin(), found.end(), [&](const Rule &other) {
            return other.name == rule.name && isEqual(other, rule);
          }))
        held.push_back(rule);
    }
    return held;
  }

  // All that the wanted rules name. Fails where one names none.
  std::list<Rule> named(const std::list<Rule> &wanted, const std::string &noun,
                        std::string (*describe)(const Rule &)) const {
    std::list<Rule> all;
    for (const Rule &rule : wanted) {
      std::list<Rule> found = like(rule);
      if (found.empty()) throw noSuchRule(describe(rule), noun);
      all.splice(all.end(), found);
    }
    return all;
  }

 private:
  std::list<Rule> like(const Rule &wanted) const {
    std::list<Rule> found;
    const auto [from, to] = byName_.equal_range(lowerCase(wanted.name));
    for (auto entry = from; entry != to; ++entry)
      if (isSame_(wanted, *entry->second)) found.push_back(*entry->second);
    return found;
  }

  std::deque<Rule> rules_;
  Same isSame_;
  std::multimap<std::string, const Rule *> byName_;
};

// Says that so many rules were added, but for those that were there before.
template <class Rule>
void confirmAdded(size_t count, const std::list<Rule> &before,
                  std::string (*describe)(const Rule &), const std::string &follower) {
  for (const Rule &rule : before)
    std::cout << "The rule for the " << describe(rule) << " is there already.\n";
  if (count > before.size())
    std::cout << counted(count - before.size(), "rule") << " stored; " << follower
              << " follows.\n";
}

#endif  // POSTWELL_PROGRAMS_RULE_LIST_H_
