// From the black and white lists to what SpamAssassin reads.

#ifndef POSTWELL_PROGRAMS_SPAM_LISTS_H_
#define POSTWELL_PROGRAMS_SPAM_LISTS_H_

#include <spam.h>

#include <deque>
#include <string>
#include <vector>

#include "common/rule_map.h"

// All entries, by name within each kind. Throws as readRuleRows().
std::deque<BlackWhite> readSpamEntries();

// What keeps an entry from being written, as the end of a sentence; empty when nothing
// does.
std::string spamEntryProblem(const BlackWhite &entry);

// "sender" or "recipient"; "client" and "unknown" for what else a table may hold.
std::string spamTypeWord(Type type);

// SpamAssassin's lines for the entries, as one text.
RuleMaps makeSpamLists(const std::deque<BlackWhite> &entries,
                       const std::vector<std::string> &domains);

// Puts the lists in place, unless they are there already. Returns what went wrong, empty
// when nothing did.
std::string replaceSpamLists(const RuleMaps &made);

// Makes a running filter read the lists, unless it is known to have. Returns what went
// wrong, empty when nothing did.
std::string tellSpamFilter();

#endif  // POSTWELL_PROGRAMS_SPAM_LISTS_H_
