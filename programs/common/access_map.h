// From access rules to the tables that Postfix's access checks look things up in.

#ifndef POSTWELL_PROGRAMS_ACCESS_MAP_H_
#define POSTWELL_PROGRAMS_ACCESS_MAP_H_

#include <access.h>

#include <deque>
#include <string>
#include <vector>

#include "common/rule_map.h"

// All rules, by name within each kind. Throws as readRuleRows().
std::deque<AccessInfo> readAccessRules();

// What keeps a rule out of the tables, as the end of a sentence; empty when nothing
// does.
std::string accessRuleProblem(const AccessInfo &rule);

// "sender", "recipient" or "client"; "unknown" for what else a table may hold.
std::string accessTypeWord(Type type);

// The tables access_client, access_sender and access_recipient.
RuleMaps makeAccessMaps(const std::deque<AccessInfo> &rules,
                        const std::vector<std::string> &domains);

#endif  // POSTWELL_PROGRAMS_ACCESS_MAP_H_
