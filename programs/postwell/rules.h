// What the options of the command line may be set to.

#ifndef POSTWELL_PROGRAMS_RULES_H_
#define POSTWELL_PROGRAMS_RULES_H_

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "moment.h"

// A check of one value, and the word that stands for such values in the help. A
// check may rewrite the value into the form that CLI11 converts.
struct Rule {
  std::string takes;
  CLI::Validator validator;
};

Rule yesNo();                           // also on, off, true, false
Rule wholeNumber(int least, int most);  // in decimal digits
Rule accountType();                     // local, ldap, win
Rule hostName();                        // or empty
Rule relayServer();                     // a host name, an address or empty
Rule relayAccount();                    // fit for Postfix's password table, or empty
Rule domainName();                      // made small
Rule blocklistName();                   // a domain name with a dot, made small
Rule aliasName();                       // a name that an alias can have
Rule mailAddress();                     // such as bob@example.org
Rule mailTarget();                      // the same, or the name of an account
Rule forwardAddress();                  // one that a ".forward" takes for nothing else
Rule replySubject();                    // UTF-8 that can stand in a header
Rule someText();                        // not empty
Rule oneOf(const std::vector<std::string> &words);  // becomes the word's index
Rule moment(DayEnd end);                            // becomes seconds since the epoch
Rule byteCount();                                   // also 10K and 5M
Rule score();                                       // two decimals at most
Rule positiveScore();                               // the same above 0
Rule subjectTag();                                  // printable ASCII
Rule ruleFile();                                    // the name of one

// What is wrong with the name of a rule file of the spam filter, in words that go on
// behind "its name"; empty when nothing is.
std::string ruleFileProblem(const std::string &name);

#endif  // POSTWELL_PROGRAMS_RULES_H_
