// What "access", "bcc", "blacklist" and "whitelist" share: listing rules in pages, and
// importing and exporting them as lines of text.

#ifndef POSTWELL_PROGRAMS_RULE_LIST_H_
#define POSTWELL_PROGRAMS_RULE_LIST_H_

#include <postwell.h>

#include <array>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "command.h"

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
};
extern const std::array<NameKind, 3> kNameKinds;

// "account", "address" or "domain"; "unknown" for what else a table may hold.
std::string nameKindWord(NameType type);

// The names of a command line, each with its kind.
using Names = std::vector<std::pair<NameType, std::string>>;

// Adds "--account", "--address" and "--domain", which may be repeated, with these helps
// in this order. At least one must be given; asking for them ends the command otherwise.
std::function<Names()> addNames(CLI::App &command,
                                const std::array<std::string, 3> &helps);

// The rules cannot be opened; they could not be changed.
Failure rulesUnavailable();
Failure rulesNotChanged();

#endif  // POSTWELL_PROGRAMS_RULE_LIST_H_
