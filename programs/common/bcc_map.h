// From BCC rules to the tables in which Postfix looks up where copies go.

#ifndef POSTWELL_PROGRAMS_BCC_MAP_H_
#define POSTWELL_PROGRAMS_BCC_MAP_H_

#include <bcc.h>

#include <deque>
#include <string>

#include "common/rule_map.h"

// All rules, by name. Throws as readRuleRows().
std::deque<BccInfo> readBccRules();

// What keeps a rule out of the tables, as the end of a sentence; empty when nothing
// does.
std::string bccRuleProblem(const BccInfo &rule);

// "sender" or "recipient"; "all" for the setting that is no rule, "unknown" for what
// else a table may hold.
std::string bccTypeWord(BccType type);

// The tables bcc_sender and bcc_recipient.
RuleMaps makeBccMaps(const std::deque<BccInfo> &rules);

#endif  // POSTWELL_PROGRAMS_BCC_MAP_H_
