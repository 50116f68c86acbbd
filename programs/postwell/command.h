// What the commands of all nouns share: the verbs "show" and "set", and the ways
// in which a command fails.

#ifndef POSTWELL_PROGRAMS_COMMAND_H_
#define POSTWELL_PROGRAMS_COMMAND_H_

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "rules.h"

enum ExitStatus { kDone = 0, kFailed = 1, kWrongUsage = 2 };

// Ends a command. The text tells the user what to do and is safe to print.
class Failure : public std::runtime_error {
 public:
  Failure(ExitStatus status, const std::string &text)
      : std::runtime_error(text), status_(status) {}
  ExitStatus status() const { return status_; }

 private:
  ExitStatus status_;
};

Failure settingsUnreadable();
// The stored password comes from another machine or was changed by hand; every
// save reads it first, so none can succeed until it is set anew.
Failure relayPasswordLost();
// A save failed. `written`: the new settings are in the file all the same; what to do
// then, once the cause is gone, `remedy` says.
Failure saveFailed(bool written, const std::string &remedy = "set them again");

// The settings of one noun by their JSON keys, in the order in which they are
// shown. Strings may hold any bytes.
using Values = nlohmann::ordered_json;

// One line of JSON in ASCII, whatever the strings hold.
std::string jsonLine(const Values &values);

// Writes the text, which is safe to print, behind the program's name on standard error:
// what is said beside a result, which stays one.
void tell(const std::string &text);

// What CLI11 throws for a wrong command line.
CLI::ParseError wrongUsage(const std::string &text);

// Gives the command an example, which its help shows.
void setExample(CLI::App &command, const std::string &line);

// The command's example as the end of a message; empty for one without.
std::string exampleOf(const CLI::App &command);

// What is wrong with an option that was given no value, several, or one that it does not
// take.
CLI::ParseError wrongCount(const CLI::ArgumentMismatch &error);

// A command line must name one of the subcommands. CLI11's own requirement would hide a
// misspelt word behind "A subcommand is required".
void requireSubcommand(CLI::App &command);

// Stands behind words in brackets while the command line is parsed; no word can hold it.
constexpr char kWordMark = '\0';
std::string unmarked(std::string word);

// What is wrong with a command line that has words which nothing takes.
CLI::ParseError unknownWords(const CLI::App &app);

// Adds the noun; a command line must name one of its verbs.
CLI::App &addNoun(CLI::App &app, const std::string &name, const std::string &help);

// Adds a verb that takes "--json" and prints what `read` returns: as JSON, or for the
// eye by `print`. Behind that, `judge` may fail for what was printed, or tell of it.
CLI::App &addReader(CLI::App &noun, const std::string &verb, const std::string &help,
                    const std::function<Values()> &read,
                    const std::function<void(const Values &)> &print,
                    const std::function<void(const Values &)> &judge = nullptr);

// Adds "show", which prints the settings that `read` returns, one a line.
void addShow(CLI::App &noun, const std::function<Values()> &read,
             const std::function<void(const Values &)> &judge = nullptr);

// Prints the settings, one a line.
void printLines(const Values &values);

// "on" or "off", for messages.
const char *onOff(bool flag);

// "1 thing", "2 things", for messages.
std::string counted(size_t count, const std::string &thing);

// The verb "set": its options, each tied to the setter that it stands for. A copy
// refers to the same command.
template <class Settings>
class SetCommand {
 public:
  explicit SetCommand(CLI::App &noun)
      : command_(noun.add_subcommand(
            "set", "Change settings; what is not named stays as it is")),
        changes_(std::make_shared<std::vector<Change>>()) {}

  CLI::App *command() const { return command_; }

  // Adds an option that is checked by the rule and then given to the setter, a
  // member function or anything called with the settings and a value.
  template <class Value, class Setter>
  CLI::Option *option(const std::string &name, const std::string &help, const Rule &rule,
                      Setter setter) {
    const std::function<void(const Value &)> remember = [changes = changes_,
                                                         setter](const Value &value) {
      changes->push_back(
          [setter, value](Settings &settings) { std::invoke(setter, settings, value); });
    };
    return command_->add_option_function(name, remember, help)
        ->transform(rule.validator)
        ->type_name(rule.takes);
  }

  // What the command does, once its line is known to name an option that it need not.
  void callback(const std::function<void()> &run) const {
    command_->callback([command = command_, run] {
      size_t least = 1;  // the verb
      for (const CLI::Option *const option : command->get_options())
        if (option->get_required()) ++least;
      if (command->count_all() == least) throw wrongUsage("name at least one setting");
      run();
    });
  }

  // Makes the changes of the command line in memory.
  void apply(Settings &settings) const {
    for (const Change &change : *changes_) change(settings);
  }

 private:
  using Change = std::function<void(Settings &)>;
  CLI::App *command_;
  std::shared_ptr<std::vector<Change>> changes_;
};

#endif  // POSTWELL_PROGRAMS_COMMAND_H_
