// What "spam", "dnsbl" and "security" share: the objects behind them, and the road of
// their settings to the daemons.

#ifndef POSTWELL_PROGRAMS_PROTECTION_H_
#define POSTWELL_PROGRAMS_PROTECTION_H_

#include <security.h>
#include <spam.h>
#include <spam_filter.h>

// They throw when the settings, the blocklists or the rules cannot be read.
Spam &spamFilter();
DNSBL &blocklists();
Security &security();

// What makes a daemon follow the settings. Throws, naming the command to repeat.
void configureSpamFilter();
void configurePostfix();  // only while SMTP is enabled
void configureScanners();
// Starts the filters that are on and stops those that are off.
void runFilters();

#endif  // POSTWELL_PROGRAMS_PROTECTION_H_
