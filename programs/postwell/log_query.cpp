// The library narrows, this decides. In the texts that the library seeks "%" and "_" are
// wildcards, it cuts long ones, and a query of it has one bound on the size; so it is
// given what it can do, at least as wide as what is wanted, and where that is wider the
// entries are sifted here. What it takes for SQL is chosen from fixed words.

#include "log_query.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <functional>
#include <iterator>

#include "command.h"
#include "common/text.h"

namespace {

using Entries = std::vector<MailLogInfo>;

// ---- what the library is asked for

constexpr size_t kLongestPattern = 400;  // fits, all quotes doubled

// The beginning of a long text, without half a character at its end.
std::string narrowed(const std::string &text) {
  if (text.size() <= kLongestPattern) return text;
  size_t end = kLongestPattern;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xc0) == 0x80) end--;
  return text.substr(0, end);
}

bool isLiteral(const std::string &text) {
  return text.size() <= kLongestPattern && text.find_first_of("%_") == std::string::npos;
}

// Whether the library finds just what is wanted.
bool isExact(const Conditions &wanted) {
  const bool others = !wanted.messageID.empty() || !wanted.from.empty() ||
                      !wanted.to.empty() || wanted.status || wanted.since ||
                      wanted.until || wanted.larger || wanted.smaller;
  return isLiteral(wanted.key) && isLiteral(wanted.messageID) && isLiteral(wanted.from) &&
         isLiteral(wanted.to) && !wanted.wholeMessageID && wanted.since != 0 &&
         wanted.until != 0 &&  // which to the library is no bound
         !(wanted.larger && wanted.smaller) && (wanted.key.empty() || !others);
}

// Without the "<>" that belongs around a Message-ID and that not every sender stores.
std::string withoutBrackets(const std::string &id) {
  const bool has = id.size() >= 2 && id.front() == '<' && id.back() == '>';
  return has ? id.substr(1, id.size() - 2) : id;
}

LogFilter filterFor(const Conditions &wanted, const Page &page) {
  LogFilter filter;
  filter.select = "*";
  filter.start = page.offset;
  filter.limit = page.limit;
  filter.orderDir = page.descending ? "desc" : "asc";
  filter.orderType = page.column;
  filter.messageID = narrowed(wanted.wholeMessageID ? withoutBrackets(wanted.messageID)
                                                    : wanted.messageID);
  filter.mailTo = narrowed(wanted.to);
  filter.mailFrom = narrowed(wanted.from);
  filter.sizeOpt = wanted.larger ? ">" : wanted.smaller ? "<" : "any";
  filter.mailSize = wanted.larger ? *wanted.larger : wanted.smaller.value_or(0);
  filter.status = wanted.status.value_or(-1);
  filter.dateFrom = wanted.since.value_or(0);
  filter.dateTo = wanted.until.value_or(0);
  return filter;
}

[[noreturn]] void failOn(const LogFile &file) {
  throw BadLog(std::string("cannot read ") + kLogFolder + file.name() +
               "; the system log tells why.");
}

// The page of what the library finds.
Entries fetch(LogFile &file, const Conditions &wanted, const Page &page) {
  Entries found;
  const int result = wanted.key.empty()
                         ? file.log().load(filterFor(wanted, page), found)
                         : file.log().search(page.limit, page.offset, page.column,
                                             page.descending ? "desc" : "asc",
                                             narrowed(wanted.key), found);
  if (result != 0) failOn(file);
  return found;
}

const Page kEverything = {"date", false, -1, 0};

// The time of a log's first or last entry.
std::optional<time_t> endOf(LogFile &file, bool last) {
  const Entries found = fetch(file, {}, {"date", last, 1, 0});
  if (found.empty()) return std::nullopt;
  return timeOf(found[0]);
}

// ---- sifting

// Letters as LIKE compares them.
bool contains(const std::string &text, const std::string &part) {
  return lowerCase(text).find(lowerCase(part)) != std::string::npos;
}

bool matches(const MailLogInfo &entry, const Conditions &wanted) {
  const time_t time = timeOf(entry);
  return (wanted.key.empty() || contains(entry.strMessageID, wanted.key) ||
          contains(entry.strMailFrom, wanted.key) ||
          contains(entry.strMailTo, wanted.key)) &&
         (wanted.wholeMessageID
              ? withoutBrackets(entry.strMessageID) == withoutBrackets(wanted.messageID)
              : contains(entry.strMessageID, wanted.messageID)) &&
         contains(entry.strMailFrom, wanted.from) &&
         contains(entry.strMailTo, wanted.to) &&
         (!wanted.status || entry.status == *wanted.status) &&
         (!wanted.since || time >= *wanted.since) &&
         (!wanted.until || time <= *wanted.until) &&
         (!wanted.larger || entry.mailSize > *wanted.larger) &&
         (!wanted.smaller || entry.mailSize < *wanted.smaller);
}

Entries sifted(Entries found, const Conditions &wanted) {
  found.erase(
      std::remove_if(found.begin(), found.end(),
                     [&wanted](const auto &entry) { return !matches(entry, wanted); }),
      found.end());
  return found;
}

// ---- several logs

// Whether one entry stands before another in the order of the column.
bool isBefore(const MailLogInfo &a, const MailLogInfo &b, const std::string &column) {
  if (column == "message_id") return a.strMessageID < b.strMessageID;
  if (column == "mail_from") return a.strMailFrom < b.strMailFrom;
  if (column == "mail_to") return a.strMailTo < b.strMailTo;
  if (column == "size") return a.mailSize < b.mailSize;
  if (column == "status") return a.status < b.status;
  return timeOf(a) < timeOf(b);
}

Entries merged(Entries first, Entries second, const Page &page) {
  if (first.empty()) return second;
  Entries both;
  both.reserve(first.size() + second.size());
  std::merge(std::make_move_iterator(first.begin()), std::make_move_iterator(first.end()),
             std::make_move_iterator(second.begin()),
             std::make_move_iterator(second.end()), std::back_inserter(both),
             [&page](const MailLogInfo &a, const MailLogInfo &b) {
               return page.descending ? isBefore(b, a, page.column)
                                      : isBefore(a, b, page.column);
             });
  return both;
}

}  // namespace

time_t timeOf(const MailLogInfo &entry) {
  tm fields = entry.date;
  return timegm(&fields) - static_cast<time_t>(entry.date.tm_gmtoff);
}

// ---- which logs

// Of all logs, leaves out those with which the work fails.
template <class Work>
void LogQuery::unlessBad(const std::string &name, Work work) {
  if (leftOut_.count(name) > 0) return;
  try {
    work();
  } catch (const BadLog &bad) {
    if (which_ != kAll) throw;
    tell(bad.what());
    leftOut_.insert(name);
  }
}

std::unique_ptr<LogFile> LogQuery::opened(const std::string &name) {
  std::unique_ptr<LogFile> file;
  unlessBad(name, [&] { file = LogFile::open(name); });
  return file;
}

// Visits the logs that there are, with the oldest first unless told otherwise. The live
// log is opened before the saved ones are listed: one that is moved aside meanwhile is
// then among both, and left out once, instead of among neither.
template <class Visit>
void LogQuery::forEachLog(bool newestFirst, Visit visit) {
  const auto use = [&](LogFile *file) {
    if (file == nullptr) return;
    unlessBad(file->name(), [&] { visit(*file); });
    file->tellDamage();
  };
  if (which_ == kSaved) {
    const std::vector<std::string> names = savedLogs();
    if (std::find(names.begin(), names.end(), name_) == names.end())
      throw Failure(kWrongUsage, "there is no saved log " + inQuotes(name_) +
                                     ".\n\"postwell log archives\" shows all of them.");
    return use(opened(name_).get());
  }
  const std::unique_ptr<LogFile> live = opened(kLiveLog);
  if (which_ == kLive) return use(live.get());
  std::vector<std::string> names = savedLogs();
  if (newestFirst) {
    use(live.get());
    std::reverse(names.begin(), names.end());
  }
  for (const std::string &name : names)
    if (live == nullptr || !live->file().isAt(kLogFolder + name)) use(opened(name).get());
  if (!newestFirst) use(live.get());
}

// ---- the queries

// The library leaves out the first entries where it alone decides: in one log, of which
// it finds just what is wanted.
std::vector<MailLogInfo> LogQuery::entries(const Conditions &conditions,
                                           const Page &page) {
  const bool exact = isExact(conditions);
  const bool skips = exact && which_ != kAll;
  const auto most = static_cast<int>(
      page.limit < 0 ? -1
                     : std::min(int64_t{page.offset} + page.limit, int64_t{INT_MAX}));
  Page asked = page;
  if (!skips) {
    asked.offset = 0;
    asked.limit = exact ? most : -1;
  }
  Entries all;
  forEachLog(page.descending, [&](LogFile &file) {
    Entries found = fetch(file, conditions, asked);
    if (!exact) found = sifted(std::move(found), conditions);
    all = merged(std::move(all), std::move(found), page);
    if (most >= 0 && all.size() > static_cast<size_t>(most))
      all.resize(static_cast<size_t>(most));
  });
  if (skips) return all;
  const size_t skipped = std::min(all.size(), static_cast<size_t>(page.offset));
  all.erase(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(skipped));
  return all;
}

long LogQuery::count(const Conditions &conditions) {
  const bool exact = isExact(conditions);
  long sum = 0;
  forEachLog(false, [&](LogFile &file) {
    if (!exact) {
      sum += static_cast<long>(
          sifted(fetch(file, conditions, kEverything), conditions).size());
      return;
    }
    LogFilter filter = filterFor(conditions, kEverything);
    filter.select = "count(*)";
    std::string key = conditions.key;
    const int count =
        key.empty() ? file.log().getLogNum(filter) : file.log().getLogNum(key);
    if (count < 0) failOn(file);
    sum += count;
  });
  return sum;
}

std::optional<time_t> LogQuery::lastTime() {
  std::optional<time_t> last;
  forEachLog(true, [&](LogFile &file) {
    const std::optional<time_t> here = endOf(file, true);
    if (here && (!last || *here > *last)) last = here;
  });
  return last;
}

void LogQuery::failIfIncomplete() const {
  if (leftOut_.empty()) return;
  std::string text = "left out, because of the above:";
  for (const std::string &name : leftOut_) text += ' ' + name;
  throw Failure(kFailed, text);
}

LogSummary summaryOf(LogFile &file) {
  LogSummary summary;
  summary.entries = file.log().getLogNum();
  if (summary.entries < 0) failOn(file);
  summary.first = endOf(file, false);
  summary.last = endOf(file, true);
  return summary;
}
