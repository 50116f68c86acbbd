// The frame of the command line: the nouns, and what becomes of their failures.
//
// CLI11 parses everything and checks every value before it runs the command, so
// a wrong option never follows a change. Its own exit codes all become 2.
//
// Where an operand may be repeated CLI11 takes a word "[a,b]" for the two words a and b,
// and would remove both instead of what is called so. Such words bear a mark behind the
// bracket until their values are checked.

#include "cli.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include "command.h"
#include "common/standard_streams.h"
#include "common/text.h"
#include "nouns.h"

namespace {

// CLI11 reads its words from the last to the first.
std::vector<std::string> markedWords(int argc, const char *const *argv) {
  std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
  for (std::string &word : words)
    if (!word.empty() && word.front() == '[' && word.back() == ']') word += kWordMark;
  std::reverse(words.begin(), words.end());
  return words;
}

// Makes taking the mark off the first check of every value.
void unmarkValues(CLI::App &command) {
  const CLI::Validator unmark(
      [](std::string &value) {
        value = unmarked(value);
        return std::string();
      },
      "");
  for (CLI::Option *const option : command.get_options()) option->transform(unmark);
  for (CLI::App *const other : command.get_subcommands(nullptr)) unmarkValues(*other);
}

int run(int argc, const char *const *argv) {
  CLI::App app(
      "Manages the mail server package: shows and changes its settings and makes\n"
      "Postfix and Dovecot follow.",
      "postwell");
  app.set_version_flag("--version", "postwell " POSTWELL_VERSION);
  app.option_defaults()->disable_flag_override();  // "--json=no" would be as "--json"
  requireSubcommand(app);
  app.failure_message([](const CLI::App *, const CLI::Error &error) {
    // The message may quote an argument.
    return "postwell: " + printable(error.what()) +
           "\nRun with --help for more information.\n";
  });
  addSmtp(app);
  addRelay(app);
  addProtocol(app);
  addAlias(app);
  addDomain(app);
  addLog(app);
  addAccess(app);
  addBcc(app);
  addSpamLists(app);
  addSpam(app);
  addDnsbl(app);
  addSecurity(app);
  addPersonal(app);
  unmarkValues(app);
  try {
    app.parse(markedWords(argc, argv));
  } catch (const CLI::ExtrasError &) {
    app.exit(unknownWords(app), std::cout, std::cerr);
    return kWrongUsage;
  } catch (const CLI::ArgumentMismatch &error) {
    app.exit(wrongCount(error), std::cout, std::cerr);
    return kWrongUsage;
  } catch (const CLI::ParseError &error) {
    return app.exit(error, std::cout, std::cerr) == 0 ? kDone : kWrongUsage;
  }
  return kDone;
}

}  // namespace

int runCli(int argc, const char *const *argv) noexcept {
  keepStandardStreams();
  try {
    const int status = run(argc, argv);
    if (std::cout.flush()) return status;
    std::cerr << "postwell: cannot write to standard output\n";
  } catch (const Failure &failure) {
    std::cerr << "postwell: " << failure.what() << '\n';
    return failure.status();
  } catch (const std::exception &error) {
    std::cerr << "postwell: " << error.what() << '\n';
  }
  return kFailed;
}
