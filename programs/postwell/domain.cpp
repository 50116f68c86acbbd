// postwell domain list|add|remove: the domains for which mail is accepted.
//
// Domain names have no case. New ones are stored in small letters; the list may hold
// others, from an editor's hand, and those are found all the same.

#include "domain.h"

#include <algorithm>
#include <iostream>
#include <memory>

#include "command.h"
#include "common/text.h"
#include "nouns.h"

namespace {

using Names = std::vector<std::string>;
using Stored = std::list<std::string>;

constexpr size_t kLongestValue = 8223;  // more of it is not read back

Domain readDomains() {
  Domain domains;
  if (domains.load() != 0) throw settingsUnreadable();
  return domains;
}

Stored::const_iterator find(const Stored &stored, const std::string &name) {
  return std::find_if(stored.begin(), stored.end(), [&name](const std::string &other) {
    return lowerCase(other) == lowerCase(name);
  });
}

void printNames(const Values &names) {
  if (names.empty()) tell("there is no domain in the list.");
  for (const Values &name : names)
    std::cout << printable(name.get_ref<const std::string &>()) << '\n';
}

void save(Domain &domains) {
  if (StringJoin(domains.getDomain(), ", ").size() > kLongestValue)
    throw Failure(kWrongUsage, "the list would be longer than " +
                                   std::to_string(kLongestValue) +
                                   " bytes; nothing was changed");
  if (domains.save() != 0)
    throw saveFailed(readDomains().getDomain() == domains.getDomain(),
                     "run \"DaemonConfSet.sh smtp\" and \"PostfixDaemon.sh restart\" in\n"
                     "/var/packages/Postwell/target/scripts");
  std::cout << "The list has " << counted(domains.getDomain().size(), "domain")
            << "; Postfix follows.\n";
}

void add(const Names &names) {
  Domain domains = readDomains();
  for (const std::string &name : names) {
    const Stored stored = domains.getDomain();
    if (find(stored, name) == stored.end())
      domains.addDomain(name);
    else
      std::cout << name << " is in the list already.\n";
  }
  save(domains);
}

void remove(const Names &names) {
  Domain domains = readDomains();
  const Stored stored = domains.getDomain();
  for (const std::string &name : names) {
    if (find(stored, name) == stored.end())
      throw Failure(kFailed, inQuotes(name) +
                                 " is not in the list; nothing was changed.\n" +
                                 "\"postwell domain list\" shows what is.");
    for (const std::string &other : stored)
      if (lowerCase(other) == lowerCase(name)) domains.delDomain(other);
  }
  save(domains);
}

// Adds a verb that works on the names of its command line. What is to be removed need
// not be a proper name.
void addVerb(CLI::App &noun, const std::string &verb, const std::string &help,
             void (*run)(const Names &), const CLI::Validator &check) {
  CLI::App *const command = noun.add_subcommand(verb, help);
  const auto names = std::make_shared<Names>();
  command->add_option("NAME", *names, "Domain names")
      ->required()
      ->transform(check)
      ->type_name("");
  command->callback([names, run] { run(*names); });
}

}  // namespace

void addDomain(CLI::App &app) {
  CLI::App &noun = addNoun(app, "domain", "The domains for which mail is accepted");
  addReader(
      noun, "list", "List the domains", [] { return Values(readDomains().getDomain()); },
      printNames);
  addVerb(noun, "add", "Accept mail for more domains", add, domainName().validator);
  addVerb(noun, "remove", "Accept no more mail for these domains", remove,
          CLI::Validator());
}
