// postwell bcc list|add|remove|always|import|export: where hidden copies of mail go.
//
// The library makes the map after each change, and says only whether all went well: what
// is stored then tells whether it was the change or the map that failed.

#include "bcc.h"

#include <algorithm>
#include <iostream>
#include <memory>

#include "common/alias_table.h"
#include "common/bcc_map.h"
#include "common/text.h"
#include "nouns.h"
#include "readable.h"
#include "rule_list.h"

namespace {

using Rules = std::list<BccInfo>;

const std::vector<std::string> kTypes = {"sender", "recipient"};

BccType typeOf(const std::string &word) {
  return word == "sender" ? BCC_SENDER : BCC_RECIPIENT;
}

Values readAll() {
  Values all = Values::array();
  for (const BccInfo &rule : readBccRules())
    all.push_back(
        {{"type", bccTypeWord(rule.type)}, {"name", rule.name}, {"target", rule.bccTo}});
  return all;
}

BCC &instance() {
  BCC *const bcc = BCC::getInstance();
  if (bcc == nullptr) throw rulesUnavailable();
  return *bcc;
}

bool isStored(const std::deque<BccInfo> &stored, const BccInfo &rule, bool withTarget) {
  return std::any_of(stored.begin(), stored.end(), [&](const BccInfo &other) {
    return other.type == rule.type && other.name == rule.name &&
           (!withTarget || other.bccTo == rule.bccTo);
  });
}

bool isSameType(const BccInfo &one, const BccInfo &other) {
  return one.type == other.type;
}

StoredRules<BccInfo> storedRules() { return {readBccRules(), isSameType}; }

std::string described(const BccInfo &rule) {
  return bccTypeWord(rule.type) + ' ' + inQuotes(rule.name);
}

[[noreturn]] void tellFailure(bool isChanged) {
  if (!isChanged) throw rulesNotChanged();
  throw saveFailed(true, "run \"/var/packages/Postwell/target/bin/kest_bcc_map\"");
}

bool isEqual(const BccInfo &one, const BccInfo &other) {
  return isSameType(one, other) && one.bccTo == other.bccTo;
}

// Returns those that were there before.
Rules store(Rules rules) {
  BCC &bcc = instance();
  const StoredRules<BccInfo> before = storedRules();  // ends here when it is damaged
  before.spell(&rules);
  if (bcc.setBCC(rules) == 0) return before.holding(rules, isEqual);
  const std::deque<BccInfo> stored = readBccRules();
  tellFailure(std::all_of(rules.begin(), rules.end(), [&stored](const BccInfo &rule) {
    return isStored(stored, rule, true);
  }));
}

void add(const BccInfo &rule) {
  const std::string problem = bccRuleProblem(rule);
  if (!problem.empty()) throw ruleRefused(rule.name, problem, "bob or bob@example.org");
  confirmAdded(1, store({rule}), described, "Postfix");
}

void remove(const std::string &type, const std::vector<std::string> &names) {
  BCC &bcc = instance();
  Rules wanted;
  for (const std::string &name : names) wanted.emplace_back(typeOf(type), name, "");
  const Rules rules = storedRules().named(wanted, "bcc", described);
  if (bcc.deleteBCC(rules) != 0) {
    const std::deque<BccInfo> stored = readBccRules();
    tellFailure(std::none_of(rules.begin(), rules.end(), [&stored](const BccInfo &rule) {
      return isStored(stored, rule, false);
    }));
  }
  std::cout << counted(rules.size(), "rule") << " removed; Postfix follows.\n";
}

// ---- copies of all mail

void setAlways(const std::string &target) {
  BCC &bcc = instance();
  if (bcc.setAlwaysBCC(target) != 0)
    throw saveFailed(bcc.getAlwaysBCC() == target,
                     "run \"DaemonConfSet.sh smtp\" and \"PostfixDaemon.sh restart\" in\n"
                     "/var/packages/Postwell/target/scripts");
  if (target.empty())
    std::cout << "No copy of all mail goes anywhere; Postfix follows.\n";
  else
    std::cout << "A copy of all mail goes to " << inQuotes(target)
              << "; Postfix follows.\n";
}

void printAlways(const Values &values) {
  const auto &target = values["target"].get_ref<const std::string &>();
  std::cout << (target.empty() ? "(none)" : readable(target)) << '\n';
}

void addAlways(CLI::App &noun) {
  CLI::App &always = addNoun(noun, "always", "The copy of all mail");
  addReader(
      always, "show", "Show where it goes",
      [] {
        return Values{{"target", instance().getAlwaysBCC()}};
      },
      printAlways);
  CLI::App *const setting = always.add_subcommand("set", "Send it to an address");
  const CLI::Option *const target =
      setting->add_option("TARGET", "A mail address or account")
          ->required()
          ->transform(mailTarget().validator)
          ->type_name("");
  setting->callback([target] { setAlways(target->as<std::string>()); });
  always.add_subcommand("off", "Send it nowhere")->callback([] { setAlways(""); });
}

// ---- files

BccInfo ruleOf(const std::string &type, const RuleImport::Line &line) {
  return {typeOf(type), line.first, line.second};
}

void storeLines(const std::string &type, const std::vector<RuleImport::Line> &lines) {
  Rules rules;
  for (const RuleImport::Line &line : lines) rules.push_back(ruleOf(type, line));
  store(rules);
}

int writeFile(const std::string &type, const std::string &path) {
  return instance().exportBCC(typeOf(type), path);
}

}  // namespace

void addBcc(CLI::App &app) {
  CLI::App &noun = addNoun(app, "bcc", "Where hidden copies of mail go");
  const RuleNoun rules = {kTypes, {"name", "target"}, readAll, "Postfix"};
  addRuleList(noun, rules);

  CLI::App *const adding = noun.add_subcommand("add", "Add a rule, or change its target");
  const auto type =
      addWord(*adding, "TYPE", kTypes, "Which side of the mail the rule looks at");
  const CLI::Option *const name =
      adding->add_option("NAME", "A mail address or account")->required()->type_name("");
  const CLI::Option *const target =
      adding->add_option("TARGET", "The mail address or account that gets the copy")
          ->required()
          ->type_name("");
  adding->callback([type, name, target] {
    add({typeOf(type()), name->as<std::string>(), target->as<std::string>()});
  });

  CLI::App *const removal = noun.add_subcommand("remove", "Remove rules");
  const auto removedType =
      addWord(*removal, "TYPE", kTypes, "Which side of the mail the rules look at");
  const auto names = std::make_shared<std::vector<std::string>>();
  removal->add_option("NAME", *names, "Whose rules")->required()->type_name("");
  removal->callback([removedType, names] { remove(removedType(), *names); });

  addAlways(noun);
  addRuleImport(noun, rules, FileHolds::kOneType,
                {[](const std::string &word, const RuleImport::Line &line) {
                   return bccRuleProblem(ruleOf(word, line));
                 },
                 storeLines, ""});
  addRuleExport(noun, rules, FileHolds::kOneType, writeFile);
}
