// "postwell spam rules" and "postwell spam rule".

#ifndef POSTWELL_PROGRAMS_SPAM_RULES_H_
#define POSTWELL_PROGRAMS_SPAM_RULES_H_

namespace CLI {
class App;
}

// Adds both verbs to the noun.
void addSpamRules(CLI::App &noun);

#endif  // POSTWELL_PROGRAMS_SPAM_RULES_H_
