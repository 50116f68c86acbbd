// The nouns of the command line, a file each. Each function adds the noun and its
// verbs; the command itself runs while the command line is parsed.

#ifndef POSTWELL_PROGRAMS_NOUNS_H_
#define POSTWELL_PROGRAMS_NOUNS_H_

namespace CLI {
class App;
}

void addSmtp(CLI::App &app);
void addRelay(CLI::App &app);
void addProtocol(CLI::App &app);
void addAlias(CLI::App &app);
void addDomain(CLI::App &app);
void addLog(CLI::App &app);
void addAccess(CLI::App &app);
void addBcc(CLI::App &app);
void addSpamLists(CLI::App &app);
void addSpam(CLI::App &app);
void addDnsbl(CLI::App &app);
void addSecurity(CLI::App &app);
void addPersonal(CLI::App &app);

#endif  // POSTWELL_PROGRAMS_NOUNS_H_
