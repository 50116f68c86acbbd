// postwell access list|add|remove|import|export: whose mail is accepted, refused or
// dropped.
//
// Only what the maps can carry is added; what is stored already can always be listed and
// removed.

#include "access.h"

#include <iostream>

#include "common/access_map.h"
#include "common/host_name.h"
#include "common/text.h"
#include "nouns.h"
#include "rule_list.h"

namespace {

using Rules = std::list<AccessInfo>;

const std::array<std::string, 3> kHelps = {
    "An account, in every local domain", "A mail address; of a client, its IP address",
    "A domain with its subdomains; of a client, also its host name"};

constexpr char kClientExample[] =
    "192.0.2.1, 2001:db8::7, mail.example.org, example.org or, for all\n"
    "of 192.0.2.0/24, 192.0.2";

const std::vector<std::string> kActions = {"permit", "reject", "discard"};

std::string wordFor(AccessStatus status) {
  const bool isKnown = status >= ACCESS_PERMIT && status <= ACCESS_DISCARD;
  return isKnown ? kActions[static_cast<size_t>(status) - 1] : "unknown";
}

Type typeOf(const std::string &word) {
  for (const Type type : {TYPE_SENDER, TYPE_RECIPIENT})
    if (accessTypeWord(type) == word) return type;
  return TYPE_CLIENT;
}

Values readAll() {
  Values all = Values::array();
  for (const AccessInfo &rule : readAccessRules())
    all.push_back({{"type", accessTypeWord(rule.type)},
                   {"kind", nameKindWord(rule.nameType)},
                   {"name", rule.name},
                   {"action", wordFor(rule.status)}});
  return all;
}

Access &instance() {
  Access *const access = Access::getInstance();
  if (access == nullptr) throw rulesUnavailable();
  return *access;
}

bool isSameKind(const AccessInfo &one, const AccessInfo &other) {
  return one.type == other.type && one.nameType == other.nameType;
}

bool isEqual(const AccessInfo &one, const AccessInfo &other) {
  return isSameKind(one, other) && one.status == other.status;
}

StoredRules<AccessInfo> stored() { return {readAccessRules(), isSameKind}; }

std::string described(const AccessInfo &rule) {
  return accessTypeWord(rule.type) + ' ' + nameKindWord(rule.nameType) + ' ' +
         inQuotes(rule.name);
}

void publish() {
  if (Access::GenerateAccessMap() < 0)
    throw saveFailed(true, "run \"/var/packages/Postwell/target/bin/kest_access_map\"");
}

// Returns those that were there before.
Rules store(Rules rules) {
  Access &access = instance();
  const StoredRules<AccessInfo> before = stored();  // ends here when the file is damaged
  before.spell(&rules);
  if (access.setAccess(rules) != 0) throw rulesNotChanged();
  publish();
  return before.holding(rules, isEqual);
}

void add(const Rules &rules) {
  for (const AccessInfo &rule : rules) {
    const std::string problem = accessRuleProblem(rule);
    if (!problem.empty())
      throw ruleRefused(
          rule.name, problem,
          rule.type == TYPE_CLIENT ? kClientExample : nameKindExample(rule.nameType));
  }
  confirmAdded(rules.size(), store(rules), described, "Postfix");
}

void remove(const Rules &wanted) {
  Access &access = instance();
  const Rules rules = stored().named(wanted, "access", described);
  if (access.deleteAccess(rules) != 0) throw rulesNotChanged();
  publish();
  std::cout << counted(rules.size(), "rule") << " removed; Postfix follows.\n";
}

// ---- files

// The rule that a line stands for, as the library's import reads it; but a client's
// address stays one.
AccessInfo ruleOf(const std::string &type, const RuleImport::Line &line) {
  const Type looksAt = typeOf(type);
  const bool isWhole = line.first.find('@') != std::string::npos ||
                       (looksAt == TYPE_CLIENT && isAddress(line.first));
  return {looksAt, isWhole ? NAME_ADDRESS : NAME_DOMAIN, line.first,
          Access::StrToStatus(line.second.c_str())};
}

std::string judge(const std::string &type, const RuleImport::Line &line) {
  const AccessInfo rule = ruleOf(type, line);
  if (rule.status == ACCESS_UNKNOW)
    return "its action is none of permit, OK, reject and discard";
  return accessRuleProblem(rule);
}

void storeLines(const std::string &type, const std::vector<RuleImport::Line> &lines) {
  Rules rules;
  for (const RuleImport::Line &line : lines) rules.push_back(ruleOf(type, line));
  store(rules);
}

int writeFile(const std::string &type, const std::string &path) {
  return instance().exportAccess(typeOf(type), path);
}

// ---- the command line

Rules rulesOf(const Names &names, const std::string &type, AccessStatus status) {
  Rules rules;
  for (const auto &[kind, name] : names)
    rules.emplace_back(typeOf(type), kind, name, status);
  return rules;
}

}  // namespace

void addAccess(CLI::App &app) {
  CLI::App &noun = addNoun(app, "access", "Whose mail is accepted, refused or dropped");
  const RuleNoun rules = {
      {"sender", "recipient", "client"}, {"name"}, readAll, "Postfix"};
  addRuleList(noun, rules);

  CLI::App *const adding = noun.add_subcommand("add", "Add rules, or change theirs");
  const auto added = addNames(*adding, kHelps);
  const auto type = addWord(*adding, "TYPE", rules.types, "What the rules look at");
  const auto action = addWord(*adding, "ACTION", kActions, "What happens to the mail");
  setExample(*adding, "postwell access add sender reject --domain spammer.example");
  adding->callback([added, type, action] {
    const AccessStatus status = Access::StrToStatus(action().c_str());
    add(rulesOf(added(), type(), status));
  });

  CLI::App *const removal = noun.add_subcommand("remove", "Remove rules");
  const auto removed = addNames(*removal, kHelps);
  const auto removedType =
      addWord(*removal, "TYPE", rules.types, "What the rules look at");
  setExample(*removal, "postwell access remove sender --domain spammer.example");
  removal->callback([removed, removedType] {
    remove(rulesOf(removed(), removedType(), ACCESS_UNKNOW));
  });

  addRuleImport(noun, rules, FileHolds::kOneType, {judge, storeLines, ""});
  addRuleExport(noun, rules, FileHolds::kOneType, writeFile);
}
