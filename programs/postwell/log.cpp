// postwell log list|search|show|count|clear|archives|stats: what became of each mail.
//
// Where there is nothing to show, or nothing new to expect, a line on standard error says
// why; standard output has the entries alone.

#include <unistd.h>

#include <climits>
#include <functional>
#include <iomanip>
#include <iostream>
#include <memory>

#include "command.h"
#include "common/text.h"
#include "log_archives.h"
#include "log_files.h"
#include "log_query.h"
#include "log_state.h"
#include "log_stats.h"
#include "moment.h"
#include "nouns.h"

namespace {

constexpr const char *kStatusWords[] = {"sent", "received", "bounced", "resent"};

struct SortWord {
  const char *word;
  const char *column;
};
constexpr SortWord kSortWords[] = {{"date", "date"},     {"from", "mail_from"},
                                   {"to", "mail_to"},    {"size", "size"},
                                   {"status", "status"}, {"message-id", "message_id"}};

// What the options of a command say.
struct Query {
  Conditions conditions;
  Page page;
  std::string archive;
  bool all = false;
  bool json = false;

  LogQuery logs() const {
    return all               ? LogQuery(LogQuery::kAll, "")
           : archive.empty() ? LogQuery(LogQuery::kLive, "")
                             : LogQuery(LogQuery::kSaved, archive);
  }
};

// ---- why there is nothing

void tellWhatThereIs(const Query &query, LogQuery &logs) {
  const std::optional<time_t> last = logs.lastTime();
  if (last)
    return tell("no entry is like that; last record at " + localTime(*last) + ".");
  const size_t saved = savedLogs().size();
  tell(query.all || saved == 0 || !query.archive.empty()
           ? "the log is empty."
           : "the live log is empty; " + counted(saved, "saved log") +
                 " can be read with --all.");
}

// Says why there is nothing (`isEmpty`) or nothing new; then fails if a log was left out.
void conclude(const Query &query, LogQuery &logs, bool isEmpty) {
  if (isEmpty) tellWhatThereIs(query, logs);
  if (query.archive.empty() && tellDaemons() && !isEmpty)
    if (const std::optional<time_t> last = logs.lastTime())
      tell("last record at " + localTime(*last) + ".");
  logs.failIfIncomplete();
}

// ---- entries

std::string statusWord(int status) {
  if (status >= 0 && status < static_cast<int>(std::size(kStatusWords)))
    return kStatusWords[status];
  return "status " + std::to_string(status);  // whatever a sender has written
}

Values describe(const MailLogInfo &entry) {
  return {{"time", utcTime(timeOf(entry))}, {"status", statusWord(entry.status)},
          {"size", entry.mailSize},         {"from", entry.strMailFrom},
          {"to", entry.strMailTo},          {"message_id", entry.strMessageID}};
}

void printEntry(const MailLogInfo &entry) {
  const auto address = [](const std::string &text) {
    return text.empty() ? "<>" : printable(text);
  };
  std::cout << localTime(timeOf(entry)) << "  " << std::left << std::setw(8)
            << statusWord(entry.status) << ' ' << std::right << std::setw(9)
            << entry.mailSize << "  " << address(entry.strMailFrom) << " -> "
            << address(entry.strMailTo) << "  " << printable(entry.strMessageID) << '\n';
}

void printEntries(const std::vector<MailLogInfo> &entries, bool json) {
  const char *before = "[\n  ";
  for (const MailLogInfo &entry : entries) {
    if (json)
      std::cout << before << jsonLine(describe(entry));
    else
      printEntry(entry);
    before = ",\n  ";
  }
  if (json) std::cout << (entries.empty() ? "[]\n" : "\n]\n");
}

// ---- the other verbs

// `hint`: the number of entries was not asked for, so tell when there are more.
void list(const Query &query, bool hint) {
  LogQuery logs = query.logs();
  Page page = query.page;
  if (hint) page.limit++;
  auto entries = logs.entries(query.conditions, page);
  const bool isMore = hint && entries.size() == static_cast<size_t>(page.limit);
  if (isMore) entries.pop_back();
  printEntries(entries, query.json);
  if (isMore)
    tell("there are more; --limit and --offset show them, --desc begins at the end.");
  const bool isNothing = entries.empty() && page.limit != 0;
  const long skipped = isNothing && page.offset > 0 ? logs.count(query.conditions) : 0;
  if (skipped > 0)
    tell("--offset is beyond the end; there are only " + std::to_string(skipped) + ".");
  conclude(query, logs, isNothing && skipped == 0);
}

void count(const Query &query) {
  LogQuery logs = query.logs();
  const long number = logs.count(query.conditions);
  std::cout << (query.json ? jsonLine({{"count", number}}) : std::to_string(number))
            << '\n';
  conclude(query, logs, number == 0);
}

void confirmClearing() {
  if (isatty(STDIN_FILENO) == 0)
    throw Failure(kWrongUsage, "add --yes to clear the log without being asked");
  std::cout << "Remove all entries of the live log? [y/N] " << std::flush;
  std::string answer;
  std::getline(std::cin, answer);
  answer = lowerCase(answer);
  if (answer != "y" && answer != "yes") throw Failure(kFailed, "nothing was changed");
}

// The log is opened when the answer is there: by then it may be another.
void clear(bool yes) {
  if (!yes) confirmClearing();
  const std::unique_ptr<LogFile> file = LogFile::open(kLiveLog);
  if (file == nullptr) {
    std::cout << "There is no live log, so there is nothing to clear.\n";
    return;
  }
  if (file->log().clear() != 0)
    throw Failure(kFailed, "the live log could not be cleared; the system log tells why");
  file->tellDamage();
  std::cout << "The live log is empty now; saved logs and statistics are kept.\n";
}

// ---- the command line

using Shared = std::shared_ptr<Query>;

CLI::Option *addText(CLI::App &command, const std::string &name, std::string *target,
                     const std::string &help) {
  return command.add_option(name, *target, help)
      ->transform(someText().validator)
      ->type_name(name[0] == '-' ? someText().takes : "");
}

// An option whose rule leaves a whole number.
template <class Number>
void addNumber(CLI::App &command, const std::string &name, std::optional<Number> *target,
               const std::string &help, const Rule &rule) {
  const std::function<void(const int64_t &)> set = [target](const int64_t &value) {
    *target = static_cast<Number>(value);
  };
  command.add_option_function(name, set, help)
      ->transform(rule.validator)
      ->type_name(rule.takes);
}

void addConditions(CLI::App &command, Conditions *wanted) {
  addText(command, "--from", &wanted->from, "Part of the sender");
  addText(command, "--to", &wanted->to, "Part of the recipient");
  addText(command, "--message-id", &wanted->messageID, "Part of the Message-ID");
  addNumber(command, "--status", &wanted->status, "What became of the mail",
            oneOf({std::begin(kStatusWords), std::end(kStatusWords)}));
  addNumber(command, "--since", &wanted->since, "Not before this time",
            moment(DayEnd::kFirst));
  addNumber(command, "--until", &wanted->until, "Not after this time",
            moment(DayEnd::kLast));
  addNumber(command, "--larger", &wanted->larger, "More bytes than this", byteCount());
  addNumber(command, "--smaller", &wanted->smaller, "Fewer bytes than this", byteCount());
}

void addSource(CLI::App &command, Query *query) {
  auto *const all = command.add_flag("--all", query->all,
                                     "In the saved logs as well as in the live one");
  addText(command, "--archive", &query->archive, "In this saved log, not in the live one")
      ->type_name("NAME")
      ->excludes(all);
  command.add_flag("--json", query->json, "As JSON, with keys that never change");
}

// Adds where entries are sought, in which order they come and how many of them.
void addLister(CLI::App &command, const Shared &query) {
  addSource(command, query.get());
  const std::function<void(const int &)> sort = [query](const int &index) {
    query->page.column = kSortWords[index].column;
  };
  std::vector<std::string> words;
  for (const SortWord &sortWord : kSortWords) words.emplace_back(sortWord.word);
  const Rule rule = oneOf(words);
  command.add_option_function("--sort", sort, "The order, instead of by date")
      ->transform(rule.validator)
      ->type_name(rule.takes);
  command.add_flag("--desc", query->page.descending, "The last of the order first");
  const CLI::Option *const limit =
      command
          .add_option("--limit", query->page.limit,
                      "At most so many entries, instead of 50; -1: all")
          ->transform(wholeNumber(-1, INT_MAX - 1).validator)
          ->type_name("NUMBER");
  command.add_option("--offset", query->page.offset, "Leave out so many entries first")
      ->transform(wholeNumber(0, INT_MAX).validator)
      ->type_name("NUMBER");
  command.callback([query, limit] { list(*query, limit->count() == 0); });
}

void addListers(CLI::App &noun) {
  const auto listed = std::make_shared<Query>(), found = std::make_shared<Query>();
  CLI::App &listing = *noun.add_subcommand("list", "List entries, the oldest first");
  addConditions(listing, &listed->conditions);
  addLister(listing, listed);

  CLI::App &search = *noun.add_subcommand(
      "search", "List entries with a text in Message-ID, sender or recipient");
  addText(search, "TEXT", &found->conditions.key, "The text")->required();
  addConditions(search, &found->conditions);
  addLister(search, found);
}

void addOthers(CLI::App &noun) {
  const auto shown = std::make_shared<Query>(), counted = std::make_shared<Query>();
  CLI::App &show =
      *noun.add_subcommand("show", "Show what became of one message, by its Message-ID");
  addText(show, "MESSAGE-ID", &shown->conditions.messageID, "The whole of it")
      ->required();
  addSource(show, shown.get());
  shown->conditions.wholeMessageID = true;
  shown->page.limit = -1;
  show.callback([shown] { list(*shown, false); });

  CLI::App &counting = *noun.add_subcommand("count", "Count entries");
  addText(counting, "TEXT", &counted->conditions.key,
          "Only those with this in Message-ID, sender or recipient");
  addConditions(counting, &counted->conditions);
  addSource(counting, counted.get());
  counting.callback([counted] { count(*counted); });

  CLI::App &archives = *noun.add_subcommand("archives", "List the saved logs");
  const CLI::Option *const json =
      archives.add_flag("--json", "As JSON, with keys that never change");
  archives.callback([json] { listLogArchives(json->count() > 0); });

  CLI::App &clearing =
      *noun.add_subcommand("clear", "Remove all entries of the live log");
  const CLI::Option *const yes = clearing.add_flag("--yes", "Without being asked");
  clearing.callback([yes] { clear(yes->count() > 0); });
}

}  // namespace

void addLog(CLI::App &app) {
  CLI::App &noun = addNoun(app, "log", "What became of each mail, and the traffic");
  addListers(noun);
  addOthers(noun);
  addLogStats(noun);
}
