// Where an account has its mailbox.

#ifndef POSTWELL_PROGRAMS_LOCAL_DOMAINS_H_
#define POSTWELL_PROGRAMS_LOCAL_DOMAINS_H_

#include <string>
#include <vector>

// The domains whose users have their mailboxes here, in small letters. Throws
// std::runtime_error when the settings cannot be read.
std::vector<std::string> localDomains();

#endif  // POSTWELL_PROGRAMS_LOCAL_DOMAINS_H_
