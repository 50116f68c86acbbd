// Keys are those of sender_bcc_maps and recipient_bcc_maps: an address, or the bare name
// of an account, which Postfix looks up for every local domain. A value is one address;
// an account's name stands for its mailbox here.

#include "common/bcc_map.h"

#include <map>

#include "common/postfix_map.h"
#include "common/text.h"

namespace {

// In the order of the table's index, which costs no sorting.
constexpr char kQuery[] = "SELECT name, type, bcc_to FROM bcc_table ORDER BY name, type;";

bool isAccountOrAddress(const std::string &text) {
  return text.find('@') == std::string::npos ? isRuleAccount(text) : isRuleAddress(text);
}

}  // namespace

std::deque<BccInfo> readBccRules() {
  std::deque<BccInfo> rules;
  readRuleRows(kQuery, {postfixMapText("bcc_sender"), postfixMapText("bcc_recipient")},
               [&rules](const TableRow &row) {
                 rules.emplace_back(static_cast<BccType>(row.integer(1)), "", "");
                 rules.back().name = row.text(0);  // moved, not copied
                 rules.back().bccTo = row.text(2);
               });
  return rules;
}

std::string bccTypeWord(BccType type) {
  switch (type) {
    case BCC_SENDER:
      return "sender";
    case BCC_RECIPIENT:
      return "recipient";
    case BCC_ALL:
      return "all";
    default:
      return "unknown";
  }
}

std::string bccRuleProblem(const BccInfo &rule) {
  if (rule.type == BCC_ALL) return "copies of all mail are a setting, not a rule";
  if (rule.type != BCC_SENDER && rule.type != BCC_RECIPIENT)
    return "it is of an unknown type";
  if (!isAccountOrAddress(rule.name)) return "it is no account name or mail address";
  if (!isAccountOrAddress(rule.bccTo))
    return "its target " + inQuotes(rule.bccTo) + " is no account name or mail address";
  return "";
}

RuleMaps makeBccMaps(const std::deque<BccInfo> &rules) {
  RuleMaps made;
  const auto leaveOut = [&made](const BccInfo &rule, const std::string &reason) {
    made.problems.push_back(bccTypeWord(rule.type) + " rule " + inQuotes(rule.name) +
                            " is left out: " + reason);
  };
  std::map<BccType, RuleKeys<BccInfo>> keys;
  for (const BccInfo &rule : rules) {
    const std::string problem = bccRuleProblem(rule);
    if (problem.empty())
      keys[rule.type].add(lowerCase(rule.name), rule);
    else
      leaveOut(rule, problem);
  }
  for (const BccType type : {BCC_SENDER, BCC_RECIPIENT}) {
    MapText map{"bcc_" + bccTypeWord(type), ""};
    keys[type].each(
        [&map](const std::string &key, const BccInfo &rule) {
          map.text.append(key).append(1, ' ').append(rule.bccTo) += '\n';
        },
        [&leaveOut](const BccInfo &rule, const BccInfo &first) {
          if (first.bccTo != rule.bccTo)
            leaveOut(rule, "the rule " + inQuotes(first.name) + " says otherwise");
        });
    made.maps.push_back(std::move(map));
  }
  return made;
}
