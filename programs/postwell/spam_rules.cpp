// postwell spam rules; postwell spam rule add|enable|disable|delete: the rule files of
// the administrator's own.
//
// The library changes files and says nothing; what became of a file is looked up behind
// it. A file is shown to SpamAssassin before it is stored, and again, beside those that
// are on by then, before it is switched on: with one that it refuses the filter would not
// start again.

#include "spam_rules.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>

#include "command.h"
#include "common/replace_file.h"
#include "common/text.h"
#include "kestcore.h"
#include "nouns.h"
#include "protection.h"

namespace {

constexpr char kImported[] = "/var/packages/Postwell/etc/rules/";
constexpr char kActive[] = "/var/packages/Postwell/target/etc/spamassassin/";
constexpr char kCandidate[] = "/var/packages/Postwell/etc/.rule.";
constexpr char kCheck[] = "/var/packages/Postwell/target/scripts/SpamRuleCheck.sh";

// The library takes a folder that it cannot read for an empty one.
std::list<SpamRule> ruleFiles() {
  Spam &spam = spamFilter();
  for (const char *path : {kImported, kActive}) {
    DIR *const folder = opendir(path);
    if (folder == nullptr)
      throw Failure(kFailed, "cannot read " + inQuotes(path) + ": " + strerror(errno) +
                                 ".\nRun as root.");
    closedir(folder);
  }
  return spam.getSpamRules();
}

bool isEnabled(const std::string &name) {
  const std::list<SpamRule> rules = ruleFiles();
  return std::any_of(rules.begin(), rules.end(), [&name](const SpamRule &rule) {
    return rule.ruleName == name && rule.isEnable;
  });
}

bool isImported(const std::string &name) {
  return !Spam::GetImportRulePath(name).empty();
}

void expectImported(const std::string &name) {
  if (isImported(name)) return;
  if (isEnabled(name))
    throw Failure(kFailed, "the one copy of rule file " + inQuotes(name) +
                               " is that in force, which was not added with this\n"
                               "command; nothing was changed. Copy it from " +
                               kActive + "\nand add it first, or delete it.");
  throw Failure(kFailed, "there is no rule file " + inQuotes(name) +
                             "; nothing was changed.\n\"postwell spam rules\" shows "
                             "what there is.");
}

// Says whether SpamAssassin takes the file under this name.
bool isFit(const std::string &path, const std::string &name) {
  return KLIBCExec(kCheck, path.c_str(), name.c_str(), nullptr, nullptr) == 0;
}

void letFilterFollow() {
  if (Spam::GenerateConfig() < 0)
    throw Failure(kFailed,
                  "the rule files are as wanted, but the spam filter may not follow.\n"
                  "A line above tells why; correct the cause and run\n"
                  "\"/var/packages/Postwell/target/scripts/DaemonConfSet.sh spam\".");
}

// A rule file is small, and there is no more of it than this in memory.
std::string readRuleFile(const std::string &path) {
  constexpr size_t kLargest = 1 << 20;
  std::ifstream file(path, std::ios::binary);
  std::string text(kLargest + 1, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  if (!file.eof())  // it is larger, a folder, or cannot be read
    throw Failure(kFailed,
                  "cannot read " + inQuotes(path) + " as a file of at most 1 MB");
  text.resize(static_cast<size_t>(file.gcount()));
  return text;
}

Values readAll() {
  Values all = Values::array();
  for (const SpamRule &rule : ruleFiles())
    all.push_back({{"name", rule.ruleName}, {"enabled", rule.isEnable}});
  return all;
}

void printRules(const Values &rules) {
  if (rules.empty()) tell("there is no rule file.");
  for (const Values &rule : rules)
    std::cout << (rule["enabled"] ? "on   " : "off  ")
              << printable(rule["name"].get_ref<const std::string &>()) << '\n';
}

void add(const std::string &path) {
  const std::string name = path.substr(path.rfind('/') + 1);
  const std::string problem = ruleFileProblem(name);
  if (!problem.empty())
    throw Failure(kWrongUsage, inQuotes(name) + " is refused: its name " + problem);
  spamFilter();  // makes the folder
  if (isImported(name))
    throw Failure(kFailed, "there is a rule file " + inQuotes(name) +
                               " already; delete it first. Nothing was changed.");
  const std::string text = readRuleFile(path);
  // The script looks at what will be stored, not at a file that may change meanwhile.
  const std::string candidate = kCandidate + std::to_string(getpid());
  const std::string failure = replaceFile(candidate, text);
  if (!failure.empty()) throw Failure(kFailed, failure);
  const bool fit = isFit(candidate, name);
  const bool isStored = fit && link(candidate.c_str(), (kImported + name).c_str()) == 0;
  const std::string reason = fit ? strerror(errno) : "a line above tells why";
  unlink(candidate.c_str());
  if (!isStored) throw Failure(kFailed, "the rule file was not taken: " + reason);
  std::cout << "Rule file " << name << " added; \"postwell spam rule enable " << name
            << "\" puts it into force.\n";
}

void enable(const std::string &name) {
  expectImported(name);
  if (!isFit(Spam::GetImportRulePath(name), name))
    throw Failure(kFailed,
                  "the spam filter does not take the rule file; nothing was changed.\n"
                  "A line above tells why.");
  spamFilter().enableRule(name);
  if (!isEnabled(name))
    throw Failure(kFailed, "the rule file could not be copied; it is off");
  letFilterFollow();
  std::cout << "Rule file " << name << " on; the spam filter follows.\n";
}

void disable(const std::string &name) {
  expectImported(name);  // the active copy may be the only one otherwise
  spamFilter().disableRule(name);
  if (isEnabled(name))
    throw Failure(kFailed, "the rule file could not be switched off; run as root");
  letFilterFollow();
  std::cout << "Rule file " << name << " off; the spam filter follows.\n";
}

void erase(const std::string &name) {
  if (!isEnabled(name)) expectImported(name);
  spamFilter().deleteRule(name);
  if (isEnabled(name) || isImported(name))
    throw Failure(kFailed, "the rule file could not be deleted; run as root");
  letFilterFollow();
  std::cout << "Rule file " << name << " deleted; the spam filter follows.\n";
}

void addVerb(CLI::App &noun, const std::string &verb, const std::string &help,
             void (*run)(const std::string &), const std::string &operand,
             const CLI::Validator &check) {
  CLI::App *const command = noun.add_subcommand(verb, help);
  const CLI::Option *const name = command->add_option(operand, "The rule file")
                                      ->required()
                                      ->transform(check)
                                      ->type_name("");
  command->callback([name, run] { run(name->as<std::string>()); });
}

}  // namespace

void addSpamRules(CLI::App &noun) {
  addReader(noun, "rules", "List the rule files", readAll, printRules);
  CLI::App &rule = addNoun(noun, "rule", "Change the rule files");
  addVerb(rule, "add", "Store a rule file, switched off", add, "FILE", CLI::Validator());
  const CLI::Validator check = ruleFile().validator;
  addVerb(rule, "enable", "Switch a rule file on", enable, "NAME", check);
  addVerb(rule, "disable", "Switch a rule file off", disable, "NAME", check);
  addVerb(rule, "delete", "Delete a rule file", erase, "NAME", check);
}
