// Rules are read whole, past the library's lists: those make a damaged file anew, and
// their counts are not what a person would take for the number of rules found.
//
// An import takes what "add" takes; the library's own would store names that no map can
// carry.

#include "rule_list.h"

#include <smtp.h>

#include <algorithm>
#include <climits>
#include <fstream>
#include <iostream>
#include <memory>

#include "common/text.h"
#include "readable.h"

namespace {

struct Page {
  std::string type;
  std::string search;
  size_t offset = 0;
  size_t limit = SIZE_MAX;
};

bool isFound(const Values &rule, const RuleNoun &rules, const Page &page) {
  if (!page.type.empty() && rule["type"] != page.type) return false;
  return std::any_of(
      rules.searched.begin(), rules.searched.end(), [&](const std::string &key) {
        return lowerCase(rule[key].get_ref<const std::string &>()).find(page.search) !=
               std::string::npos;
      });
}

Values byName(Values all) {
  const auto name = [](const Values &rule) -> const std::string & {
    return rule["name"].get_ref<const std::string &>();
  };
  std::stable_sort(
      all.begin(), all.end(),
      [name](const Values &one, const Values &other) { return name(one) < name(other); });
  return all;
}

Values findPage(const RuleNoun &rules, const Page &page) {
  Values found = Values::array();
  size_t total = 0;
  for (const Values &rule : byName(rules.readAll())) {
    if (!isFound(rule, rules, page)) continue;
    if (total >= page.offset && found.size() < page.limit) found.push_back(rule);
    ++total;
  }
  return {{"total", total}, {"rules", found}};
}

void printPage(const Values &page) {
  if (page["rules"].empty()) tell("there is no rule to show.");
  for (const Values &rule : page["rules"]) {
    const char *before = "";
    for (const Values &value : rule) {
      std::cout << before << readable(value.get_ref<const std::string &>());
      before = " ";
    }
    std::cout << '\n';
  }
}

std::string trimmed(const std::string &text) {
  static const char kWhite[] = " \t\r\n\v\f";
  const size_t from = text.find_first_not_of(kWhite);
  if (from == std::string::npos) return "";
  return text.substr(from, text.find_last_not_of(kWhite) + 1 - from);
}

std::ifstream opened(const std::string &path) {
  std::ifstream file(path == "-" ? "/dev/stdin" : path);
  if (!file || file.peek() == EOF)  // a folder can be opened, and not read
    if (!file.eof()) throw Failure(kFailed, "cannot read " + inQuotes(path));
  return file;
}

Values importFile(const std::string &type, const std::string &path,
                  const RuleImport &import) {
  std::ifstream file = opened(path);
  std::vector<RuleImport::Line> taken;
  Values skipped = Values::array();
  size_t number = 0;
  for (std::string text; std::getline(file, text);) {
    ++number;
    std::replace(text.begin(), text.end(), '\t', ' ');
    text = trimmed(text);
    if (text.empty() || text == import.head) continue;
    const size_t blank = text.find(' ');
    const RuleImport::Line line(text.substr(0, blank), blank == std::string::npos
                                                           ? ""
                                                           : trimmed(text.substr(blank)));
    const std::string problem = import.judge(type, line);
    if (problem.empty())
      taken.push_back(line);
    else
      skipped.push_back({{"line", number}, {"text", text}, {"reason", problem}});
  }
  import.store(type, taken);
  return {{"taken", taken.size()}, {"skipped", skipped}};
}

void printImport(const Values &report, const std::string &follower) {
  for (const Values &line : report["skipped"])
    std::cout << "Line " << line["line"] << " is skipped ("
              << inQuotes(line["text"].get<std::string>())
              << "): " << line["reason"].get<std::string>() << ".\n";
  std::cout << counted(report["taken"].get<size_t>(), "line") << " taken, "
            << counted(report["skipped"].size(), "line") << " skipped; " << follower
            << " follows.\n";
}

void judgeImport(const Values &report) {
  if (report["taken"] == 0 && !report["skipped"].empty())
    throw Failure(kFailed, "no line of the file was taken");
}

// Adds the operand TYPE where a file holds rules of one type; the result tells which was
// given, and is empty otherwise.
std::function<std::string()> addFileType(CLI::App &command, const RuleNoun &rules,
                                         FileHolds holds) {
  if (holds == FileHolds::kAllTypes) return [] { return std::string(); };
  return addWord(command, "TYPE", rules.types, "What the rules look at");
}

// Ties an option that is a number to its place.
void addCount(CLI::App &command, const std::string &name, const std::string &help,
              size_t *place) {
  command.add_option(name, *place, help)
      ->transform(wholeNumber(0, INT_MAX).validator)
      ->type_name("NUMBER");
}

}  // namespace

std::function<std::string()> addWord(CLI::App &command, const std::string &name,
                                     const std::vector<std::string> &words,
                                     const std::string &help) {
  const Rule rule = oneOf(words);
  const CLI::Option *const option = command.add_option(name, help)
                                        ->required()
                                        ->transform(rule.validator)
                                        ->type_name(rule.takes);
  return [option, words] { return words[option->as<size_t>()]; };
}

void addRuleList(CLI::App &noun, const RuleNoun &rules) {
  const auto page = std::make_shared<Page>();
  CLI::App &command = addReader(
      noun, "list", "List the rules, by name",
      [rules, page] {
        page->search = lowerCase(page->search);
        return findPage(rules, *page);
      },
      printPage);
  const Rule type = oneOf(rules.types);
  command
      .add_option_function<size_t>(
          "--type", [rules, page](size_t index) { page->type = rules.types[index]; },
          "Only rules of this type")
      ->transform(type.validator)
      ->type_name(type.takes);
  command.add_option("--search", page->search, "Only rules in which this text occurs")
      ->type_name("TEXT");
  addCount(command, "--offset", "Leave out so many at the beginning", &page->offset);
  addCount(command, "--limit", "Show so many at most", &page->limit);
}

void addRuleImport(CLI::App &noun, const RuleNoun &rules, FileHolds holds,
                   const RuleImport &import) {
  struct Operands {
    std::function<std::string()> type;
    const CLI::Option *file;
  };
  const auto operands = std::make_shared<Operands>();
  CLI::App &command = addReader(
      noun, "import", "Add the rules that the lines of a file hold",
      [operands, import] {
        return importFile(operands->type(), operands->file->as<std::string>(), import);
      },
      [follower = rules.follower](const Values &report) {
        printImport(report, follower);
      },
      judgeImport);
  operands->type = addFileType(command, rules, holds);
  operands->file = command.add_option("FILE", "The file; \"-\" for standard input")
                       ->required()
                       ->type_name("");
}

void addRuleExport(
    CLI::App &noun, const RuleNoun &rules, FileHolds holds,
    const std::function<int(const std::string &type, const std::string &path)> &write) {
  CLI::App *const command = noun.add_subcommand("export", "Write the rules into a file");
  const auto type = addFileType(*command, rules, holds);
  const CLI::Option *const file =
      command->add_option("FILE", "The file; what it holds is replaced")
          ->required()
          ->type_name("");
  command->callback([rules, write, type, file] {
    const auto word = type();
    const auto path = file->as<std::string>();
    // The library would make damaged rules anew, and it empties the file before it reads.
    if (SMTP().loadSMTPSetting() != 0) throw settingsUnreadable();
    const Values all = rules.readAll();
    if (write(word, path) != 0)
      throw Failure(kFailed, "cannot write the rules into " + inQuotes(path) +
                                 "; the system log tells why");
    const auto count = std::count_if(all.begin(), all.end(), [&word](const Values &rule) {
      return word.empty() || rule["type"] == word;
    });
    std::cout << counted(static_cast<size_t>(count), "rule") << " written to "
              << inQuotes(path) << ".\n";
  });
}

const std::array<NameKind, 3> kNameKinds = {
    {{NAME_ACCOUNT, "account", "--account", "bob"},
     {NAME_ADDRESS, "address", "--address", "bob@example.org"},
     {NAME_DOMAIN, "domain", "--domain", "example.org"}}};

std::string nameKindWord(NameType type) {
  for (const NameKind &kind : kNameKinds)
    if (kind.type == type) return kind.word;
  return "unknown";  // the file may hold any number
}

std::string nameKindExample(NameType type) {
  for (const NameKind &kind : kNameKinds)
    if (kind.type == type) return kind.example;
  return "";
}

std::function<Names()> addNames(CLI::App &command,
                                const std::array<std::string, 3> &helps) {
  auto names = std::make_shared<Names>();
  for (size_t i = 0; i < kNameKinds.size(); ++i) {
    const auto remember =
        [names, type = kNameKinds[i].type](const std::vector<std::string> &given) {
          for (const std::string &name : given) names->emplace_back(type, name);
        };
    command
        .add_option_function<std::vector<std::string>>(kNameKinds[i].option, remember,
                                                       helps[i] + "; may be repeated")
        ->type_name("NAME")
        ->allow_extra_args(false);
  }
  return [names, &command] {
    if (names->empty())
      throw Failure(kWrongUsage, "name something with --account, --address or --domain" +
                                     exampleOf(command));
    return *names;
  };
}

Failure ruleRefused(const std::string &name, const std::string &problem,
                    const std::string &example) {
  return {kWrongUsage, inQuotes(name) + " is refused: " + problem +
                           "; nothing was changed.\nIt must look like " + example + '.'};
}

Failure rulesUnavailable() {
  return {kFailed,
          "cannot open /var/packages/Postwell/etc/postwell.db.\n"
          "Run as root; the system log tells why."};
}

Failure noSuchRule(const std::string &described, const std::string &noun) {
  return {kFailed, "there is no rule for the " + described +
                       "; nothing was changed.\n\"postwell " + noun +
                       " list\" shows what there is."};
}

Failure rulesNotChanged() {
  return {kFailed,
          "the rules are not as wanted. Run as root, and again if someone else\n"
          "was changing them; the system log tells which step failed."};
}
