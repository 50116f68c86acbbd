// What the makers of Postfix's tables from the rules in postwell.db share.

#ifndef POSTWELL_PROGRAMS_RULE_MAP_H_
#define POSTWELL_PROGRAMS_RULE_MAP_H_

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "common/postfix_map.h"
#include "common/table_reader.h"

struct RuleMaps {
  std::vector<MapText> maps;
  std::vector<std::string> problems;  // which rules were left out, and why
};

// The keys of a table, each with the rules that stand for it.
template <class Rule>
class RuleKeys {
 public:
  void add(std::string key, const Rule &rule) {
    keys_.emplace_back(std::move(key), &rule);
  }

  // Gives each key once, in order, to `take` with the rule that was added first, and to
  // `other` each further rule of the key with that one.
  template <class Take, class Other>
  void each(Take take, Other other) {
    const auto isBefore = [](const auto &one, const auto &two) {
      return one.first < two.first;
    };
    if (!std::is_sorted(keys_.begin(), keys_.end(), isBefore))  // most come in order
      std::stable_sort(keys_.begin(), keys_.end(), isBefore);
    const std::pair<std::string, const Rule *> *first = nullptr;
    for (const auto &entry : keys_) {
      if (first != nullptr && first->first == entry.first) {
        other(*entry.second, *first->second);
        continue;
      }
      first = &entry;
      take(entry.first, *entry.second);
    }
  }

 private:
  std::vector<std::pair<std::string, const Rule *>> keys_;
};

// Whether the text is a mail address that a table can carry as a key or a value: as
// isMailAddress(), but letters of other scripts may stand before the "@".
bool isRuleAddress(const std::string &text);

// The same for the part before the "@" alone: the name of a local account.
bool isRuleAccount(const std::string &text);

// Gives each row of the query on postwell.db to `take`. Without the file there are no
// rules, unless what was made of them before, the files `texts`, shows that there have
// been some. Throws std::runtime_error when the rules cannot be read.
void readRuleRows(const char *query, const std::vector<std::string> &texts,
                  const std::function<void(const TableRow &)> &take);

// Puts the tables in the place of those from before. Returns what went wrong, empty when
// nothing did.
std::string replaceRuleMaps(const RuleMaps &made);

// Tells no daemon: those that look things up in tables see new ones by themselves.
inline std::string tellNobody() { return ""; }

// The whole of a map maker's main(): gives what `make` returns to `replace`, names what
// was left out on standard error, and then lets `tell` tell who follows. Two of the same
// program make and replace one after the other. Returns the exit status: 0 done, 1
// failed as `replace` or `tell` says, or before them with what was there in force, 2
// when there were arguments.
int runMapMaker(
    const std::string &program, int argc, const std::function<RuleMaps()> &make,
    const std::function<std::string(const RuleMaps &)> &replace = replaceRuleMaps,
    const std::function<std::string()> &tell = tellNobody) noexcept;

#endif  // POSTWELL_PROGRAMS_RULE_MAP_H_
