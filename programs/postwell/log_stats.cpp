// postwell log stats: messages and volume of a day by hours, of a week or a month by
// days, of half a year by 30 days. The intervals begin at multiples of their length
// since the epoch: a day is one of UTC.

#include "log_stats.h"

#include <unistd.h>

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <memory>

#include "command.h"
#include "log_files.h"
#include "log_state.h"
#include "moment.h"
#include "rules.h"

namespace {

struct Period {
  const char *word;
  TimeScale scale;
  time_t width;  // seconds of an interval
};
constexpr Period kPeriods[] = {{"day", DAY, 3600},
                               {"week", WEEK, 86'400},
                               {"month", MONTH, 86'400},
                               {"half-year", HALF_YEAR, 2'592'000}};

struct Interval {
  time_t start;
  int64_t received, sent, bounced;  // messages; beyond an int the library's wrap
  int64_t receivedKib, sentKib;
};

struct Options {
  const Period *period = &kPeriods[0];
  time_t until = 0;
  bool json = false, csv = false, bars = false;
};

// Statistics are read with a log, no matter which.
std::unique_ptr<LogFile> openAny() {
  auto file = LogFile::open(kLiveLog);
  for (const std::string &name : savedLogs()) {
    if (file != nullptr) break;
    file = LogFile::open(name);
  }
  if (file == nullptr)
    throw Failure(kFailed, "there is no mail log yet; maillogd makes it.");
  return file;
}

// No interval at all when the statistics were damaged.
std::vector<Interval> read(const Options &options) {
  const auto file = openAny();
  const Period &period = *options.period;
  Statistic messages, volume;
  if (file->log().getQuantityStatistic(messages, options.until, period.scale) != 0 ||
      file->log().getBandwidthStatistic(volume, options.until, period.scale) != 0)
    throw Failure(kFailed, "cannot read the statistics; the system log tells why.");
  file->tellDamage();
  const size_t count = std::min(messages.inbound.size(), volume.inbound.size());
  time_t start = options.until - options.until % period.width -
                 (static_cast<time_t>(period.scale) - 1) * period.width;
  std::vector<Interval> intervals;
  const auto value = [](const std::vector<uint64_t> &series, size_t i) {
    return static_cast<int64_t>(series[i]);
  };
  for (size_t i = 0; i < count; i++, start += period.width)
    intervals.push_back({start, value(messages.inbound, i), value(messages.outbound, i),
                         value(messages.bounce, i), value(volume.inbound, i),
                         value(volume.outbound, i)});
  return intervals;
}

void printJson(const std::vector<Interval> &intervals) {
  const char *before = "[\n  ";
  for (const Interval &one : intervals) {
    std::cout << before
              << jsonLine({{"time", utcTime(one.start)},
                           {"received", one.received},
                           {"sent", one.sent},
                           {"bounced", one.bounced},
                           {"received_kib", one.receivedKib},
                           {"sent_kib", one.sentKib}});
    before = ",\n  ";
  }
  std::cout << (intervals.empty() ? "[]\n" : "\n]\n");
}

void printCsv(const std::vector<Interval> &intervals) {
  std::cout << "time,received,sent,bounced,received_kib,sent_kib\n";
  for (const Interval &one : intervals)
    std::cout << utcTime(one.start) << ',' << one.received << ',' << one.sent << ','
              << one.bounced << ',' << one.receivedKib << ',' << one.sentKib << '\n';
}

// What is received, sent and bounced, one behind the other, as a part of the most.
std::string barOf(const Interval &one, int64_t most) {
  constexpr int64_t kWidth = 30;
  std::string bar;
  int64_t sum = 0;
  for (const auto &[number, mark] :
       {std::pair(one.received, '#'), std::pair(one.sent, '='),
        std::pair(one.bounced, '!')}) {
    sum += std::max<int64_t>(number, 0);
    const int64_t end = most == 0 ? 0 : (2 * sum * kWidth + most) / (2 * most);
    bar.resize(static_cast<size_t>(end), mark);
  }
  return bar;
}

int64_t allOf(const Interval &one) {
  return std::max<int64_t>(one.received, 0) + std::max<int64_t>(one.sent, 0) +
         std::max<int64_t>(one.bounced, 0);
}

void printTable(const std::vector<Interval> &intervals, bool bars) {
  int64_t most = 0;
  for (const Interval &one : intervals) most = std::max(most, allOf(one));
  std::cout << "from                       received      sent   bounced   received KiB"
               "       sent KiB"
            << (bars ? "  # received = sent ! bounced" : "") << '\n';
  for (const Interval &one : intervals) {
    std::cout << localTime(one.start) << std::setw(10) << one.received << std::setw(10)
              << one.sent << std::setw(10) << one.bounced << std::setw(15)
              << one.receivedKib << std::setw(15) << one.sentKib;
    const std::string bar = bars ? barOf(one, most) : "";
    std::cout << (bar.empty() ? "" : "  ") << bar << '\n';
  }
}

void show(const Options &options) {
  const std::vector<Interval> intervals = read(options);
  if (options.json)
    printJson(intervals);
  else if (options.csv)
    printCsv(intervals);
  else
    printTable(intervals, options.bars || isatty(STDOUT_FILENO) != 0);
  tellDaemons();
}

}  // namespace

void addLogStats(CLI::App &noun) {
  CLI::App &command = *noun.add_subcommand("stats", "Show the traffic by intervals");
  const auto options = std::make_shared<Options>();
  std::vector<std::string> words;
  for (const Period &period : kPeriods) words.emplace_back(period.word);
  const Rule period = oneOf(words), until = moment(DayEnd::kLast);
  const std::function<void(const int &)> choose = [options](const int &index) {
    options->period = &kPeriods[index];
  };
  command.add_option_function("--period", choose, "How far back; day if it is not told")
      ->transform(period.validator)
      ->type_name(period.takes);
  options->until = time(nullptr);
  command.add_option("--until", options->until, "The last moment, instead of now")
      ->transform(until.validator)
      ->type_name(until.takes);
  auto *const json =
      command.add_flag("--json", options->json, "As JSON, with keys that never change");
  auto *const csv = command.add_flag("--csv", options->csv, "As comma-separated values")
                        ->excludes(json);
  command
      .add_flag("--bars", options->bars, "Draw bars; on a terminal they always are drawn")
      ->excludes(json)
      ->excludes(csv);
  command.callback([options] { show(*options); });
}
