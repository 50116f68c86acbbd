// Output and failures that all nouns share.
//
// The settings file is edited by hand at times and may hold anything: nothing of
// it reaches the terminal unescaped, neither as text nor as JSON.

#include "command.h"

#include <iomanip>
#include <iostream>

#include "common/text.h"
#include "readable.h"

namespace {

std::string forTerminal(const Values &value) {
  if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
  if (value.is_null()) return "unknown";
  if (!value.is_string()) return value.dump();
  const auto &text = value.get_ref<const std::string &>();
  return text.empty() ? "(none)" : readable(text);
}

std::string subcommandNames(const CLI::App &command) {
  std::string names;
  for (const CLI::App *const other : command.get_subcommands(nullptr))
    names += (names.empty() ? "" : ", ") + other->get_name();
  return names;
}

// `indent` -1: on one line.
std::string asJson(const Values &values, int indent) {
  constexpr bool kAsciiOnly = true;  // a terminal may be reading
  return values.dump(indent, ' ', kAsciiOnly, Values::error_handler_t::replace);
}

}  // namespace

Failure settingsUnreadable() {
  return {kFailed,
          "cannot read /var/packages/Postwell/etc/postwell.conf.\n"
          "Run as root. If the file is missing, install the package again, or copy\n"
          "/var/packages/Postwell/target/etc/postwell.conf.default to its place."};
}

Failure relayPasswordLost() {
  return {kFailed,
          "the stored relay password cannot be decrypted, so nothing was changed.\n"
          "Only root can: run as root. If you did, it was made on another machine or "
          "changed\n"
          "by hand; set it again with \"postwell relay set --password-stdin\"."};
}

Failure saveFailed(bool written, const std::string &remedy) {
  if (!written)
    return {kFailed,
            "saving failed and the settings are not as wanted.\n"
            "Run as root; the system log tells which step failed."};
  return {kFailed,
          "the new settings are in the file, but the daemons may not follow them.\n"
          "Run as root. The system log, and lines above if there are any, tell which\n"
          "step failed; correct the cause and\n" +
              remedy + "."};
}

std::string jsonLine(const Values &values) { return asJson(values, -1); }

void tell(const std::string &text) { std::cerr << "postwell: " << text << '\n'; }

CLI::ParseError wrongUsage(const std::string &text) {
  return {text, CLI::ExitCodes::RequiredError};
}

void setExample(CLI::App &command, const std::string &line) {
  command.footer("Example: " + line);
}

std::string exampleOf(const CLI::App &command) {
  const std::string example = command.get_footer();
  return example.empty() ? "" : ". " + example;
}

// CLI11 tells by its text alone which option it is, and what is wrong:
// "--port: 1 required NUMBER missing", "json was given a disallowed flag override".
CLI::ParseError wrongCount(const CLI::ArgumentMismatch &error) {
  static const std::string kBefore = " required ", kBehind = " missing";
  const std::string text = error.what();
  const std::string option = text.substr(0, text.find_first_of(": "));
  if (text.find("override") != std::string::npos)
    return wrongUsage("--" + option + " takes no value");
  const size_t start = text.find(kBefore), end = text.rfind(kBehind);
  if (start == std::string::npos || end == std::string::npos)
    return wrongUsage(option + " may be given once only");
  const size_t value = start + kBefore.size();
  return wrongUsage(option + " needs a value: " + text.substr(value, end - value));
}

void requireSubcommand(CLI::App &command) {
  command.require_subcommand(0, 1);
  command.callback([&command] {
    if (command.get_subcommands().empty())
      throw wrongUsage("name one of: " + subcommandNames(command));
  });
}

std::string unmarked(std::string word) {
  if (!word.empty() && word.back() == kWordMark) word.pop_back();
  return word;
}

CLI::ParseError unknownWords(const CLI::App &app) {
  const CLI::App *command = &app;  // then the one that was given the word
  while (command->remaining().empty() && !command->get_subcommands().empty())
    command = command->get_subcommands().front();
  const std::vector<std::string> words = command->remaining();
  const std::string word = words.empty() ? "" : unmarked(words.front());
  const std::string names = subcommandNames(*command);
  const std::string problem = word.rfind('-', 0) == 0 ? "is no option here"
                              : names.empty()         ? "is one word too many"
                                                      : "is none of: " + names;
  return wrongUsage(inQuotes(word) + ' ' + problem + exampleOf(*command));
}

CLI::App &addNoun(CLI::App &app, const std::string &name, const std::string &help) {
  CLI::App *const noun = app.add_subcommand(name, help);
  requireSubcommand(*noun);
  return *noun;
}

CLI::App &addReader(CLI::App &noun, const std::string &verb, const std::string &help,
                    const std::function<Values()> &read,
                    const std::function<void(const Values &)> &print,
                    const std::function<void(const Values &)> &judge) {
  CLI::App *const command = noun.add_subcommand(verb, help);
  const CLI::Option *const json =
      command->add_flag("--json", "As JSON, with keys that never change");
  command->callback([read, print, judge, json] {
    const Values values = read();
    if (json->count() > 0)
      std::cout << asJson(values, 2) << '\n';
    else
      print(values);
    if (judge) judge(values);
  });
  return *command;
}

void printLines(const Values &values) {
  constexpr int kColumn = 18;  // fits the longest key
  for (const auto &[key, value] : values.items())
    std::cout << std::left << std::setw(kColumn) << key << forTerminal(value) << '\n';
}

void addShow(CLI::App &noun, const std::function<Values()> &read,
             const std::function<void(const Values &)> &judge) {
  addReader(noun, "show", "Show the settings", read, printLines, judge);
}

const char *onOff(bool flag) { return flag ? "on" : "off"; }

std::string counted(size_t count, const std::string &thing) {
  return std::to_string(count) + ' ' + thing + (count == 1 ? "" : "s");
}
