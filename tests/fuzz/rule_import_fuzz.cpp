// Anything at all as a file of rules that is imported: each line that says something is
// taken or skipped, what is taken is what an export gives back, and whatever the
// library's own import takes can be listed and removed.
//
// The first byte tells which rules; the file follows.

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <tuple>
#include <vector>

#include "command_line.h"
#include "common/access_map.h"
#include "common/bcc_map.h"
#include "common/spam_lists.h"
#include "fuzz.h"
#include "nouns.h"
#include "rule_list.h"

namespace {

using Words = std::vector<std::string>;
using Json = nlohmann::json;
using Rule = std::tuple<int, NameType, std::string, std::string>;  // type, …, name, what
using Rules = std::vector<Rule>;

constexpr char kFile[] = "rules", kExport[] = "export";
constexpr char kStored[] = "/var/packages/Postwell/etc/postwell.db";

// ---- the kinds of rules

Rules accessRules() {
  Rules rules;
  for (const AccessInfo &rule : readAccessRules())
    rules.emplace_back(rule.type, rule.nameType, rule.name,
                       Access::StatusToStr(rule.status));
  return rules;
}

Rules bccRules() {
  Rules rules;
  for (const BccInfo &rule : readBccRules())
    rules.emplace_back(rule.type, NAME_ADDRESS, rule.name, rule.bccTo);
  return rules;
}

Rules spamRules() {
  Rules rules;
  for (const BlackWhite &rule : readSpamEntries())
    rules.emplace_back(rule.type, rule.nameType, rule.name,
                       std::to_string(rule.blackWhite));
  return rules;
}

struct Kind {
  const char *noun;
  void (*addNoun)(CLI::App &);
  Words type;  // as an operand of the import
  Rules (*read)();
  int (*import)();
  int (*write)();
};

template <Type type>
Kind access() {
  return {"access",
          addAccess,
          {accessTypeWord(type)},
          accessRules,
          [] { return Access::getInstance()->importAccess(type, kFile); },
          [] { return Access::getInstance()->exportAccess(type, kExport); }};
}

template <BccType type>
Kind bcc() {
  return {"bcc",
          addBcc,
          {bccTypeWord(type)},
          bccRules,
          [] { return BCC::getInstance()->importBCC(type, kFile); },
          [] { return BCC::getInstance()->exportBCC(type, kExport); }};
}

template <BlackWhiteType list>
Kind spam() {
  return {list == TYPE_BLACK ? "blacklist" : "whitelist",
          addSpamLists,
          {},
          spamRules,
          [] { return Spam::getInstance()->importBlackWhite(list, kFile); },
          [] { return Spam::getInstance()->exportBlackWhite(list, kExport); }};
}

const Kind kKinds[] = {access<TYPE_SENDER>(), access<TYPE_RECIPIENT>(),
                       access<TYPE_CLIENT>(), bcc<BCC_SENDER>(),
                       bcc<BCC_RECIPIENT>(),  spam<TYPE_BLACK>(),
                       spam<TYPE_WHITE>()};

// ---- what must hold

Json import(const Kind &kind, const char *file) {
  Words words = {kind.noun, "import", "--json"};
  words.insert(words.end(), kind.type.begin(), kind.type.end());
  words.push_back(file);
  const Outcome outcome = runNoun(kind.addNoun, words);
  const Json report = Json::parse(outcome.out, nullptr, false);
  if (report.is_discarded()) fail("there is no report: " + outcome.err);
  return report;
}

size_t countRules(const std::string &text, bool hasHead) {
  size_t count = 0;
  for (std::string line : linesOf(text)) {
    std::replace(line.begin(), line.end(), '\t', ' ');
    const std::string rule = trimmed(line);
    if (!rule.empty() && !(hasHead && rule == "FromOrTo: default no")) ++count;
  }
  return count;
}

void checkImport(const Kind &kind, const std::string &text) {
  const Json report = import(kind, kFile);
  const size_t taken = report["taken"];
  expect(taken + report["skipped"].size() == countRules(text, kind.type.empty()),
         "a line is neither taken nor skipped");
  const Rules rules = kind.read();
  expect(rules.size() <= taken && rules.empty() == (taken == 0), "others are stored");
  expect(kind.write() == 0, "the export fails");
  std::filesystem::remove(kStored);
  const Json again = import(kind, kExport);
  expect(
      again["taken"] == rules.size() && again["skipped"].empty() && kind.read() == rules,
      "what is exported is not imported again");
}

Words removalOf(const Kind &kind, const Rule &rule) {
  const auto &[type, nameType, name, what] = rule;
  Words words = {kind.noun, "remove", accessTypeWord(static_cast<Type>(type))};
  if (kind.noun == std::string("bcc"))
    words.insert(words.end(), {"--", name});
  else
    words.push_back("--" + nameKindWord(nameType) + '=' + name);
  return words;
}

void expectDone(const Outcome &outcome) {
  expect(outcome.status == 0, "it cannot be listed or removed: " + outcome.err);
}

void checkLibrary(const Kind &kind) {
  std::filesystem::remove(kStored);
  expect(kind.import() == 0, "the library's import fails");
  const Rules rules = kind.read();
  if (rules.empty()) return;
  expectDone(runNoun(kind.addNoun, {kind.noun, "list"}));
  expectDone(runCommand(removalOf(kind, rules.back())));
  const Rules left = kind.read();
  expect(left.size() < rules.size() &&
             std::find(left.begin(), left.end(), rules.back()) == left.end(),
         "what is removed is still there");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  const Kind &kind = kKinds[data[0] % std::size(kKinds)];
  const std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);
  beginPackage();
  writeWhole(kFile, text);
  checkImport(kind, text);
  checkLibrary(kind);
  return 0;
}
