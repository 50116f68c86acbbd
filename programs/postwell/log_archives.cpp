// postwell log archives. All logs are looked into before the first line is printed; one
// that cannot be read is named, and is not among them.

#include "log_archives.h"

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <string>
#include <vector>

#include "command.h"
#include "log_query.h"
#include "moment.h"

namespace {

struct Archive {
  std::string name;
  LogSummary summary;
};

// The logs that can be read; tells of the others.
std::vector<Archive> readable(const std::vector<std::string> &names, bool *isComplete) {
  std::vector<Archive> archives;
  for (const std::string &name : names) {
    try {
      const std::unique_ptr<LogFile> file = LogFile::open(name);
      if (file == nullptr) continue;  // its turn to be removed has come meanwhile
      archives.push_back({name, summaryOf(*file)});
      file->tellDamage();
    } catch (const BadLog &bad) {
      tell(bad.what());
      *isComplete = false;
    }
  }
  return archives;
}

void printJson(const std::vector<Archive> &archives) {
  const auto text = [](const std::optional<time_t> &time) {
    return time ? utcTime(*time) : "";
  };
  const char *before = "[\n  ";
  for (const auto &[name, summary] : archives) {
    std::cout << before
              << jsonLine({{"name", name},
                           {"entries", summary.entries},
                           {"first", text(summary.first)},
                           {"last", text(summary.last)}});
    before = ",\n  ";
  }
  std::cout << (archives.empty() ? "[]\n" : "\n]\n");
}

void printTable(const std::vector<Archive> &archives) {
  size_t width = 0;
  for (const Archive &archive : archives) width = std::max(width, archive.name.size());
  for (const auto &[name, summary] : archives) {
    std::cout << std::left << std::setw(static_cast<int>(width)) << name << std::right
              << std::setw(10) << summary.entries;
    if (summary.first && summary.last)
      std::cout << "  " << localTime(*summary.first) << " to "
                << localTime(*summary.last);
    std::cout << '\n';
  }
}

}  // namespace

void listLogArchives(bool json) {
  bool isComplete = true;
  const std::vector<std::string> names = savedLogs();
  const std::vector<Archive> archives = readable(names, &isComplete);
  if (json)
    printJson(archives);
  else
    printTable(archives);
  if (names.empty()) tell("there is no saved log.");
  if (!isComplete) throw Failure(kFailed, "not every saved log could be read.");
}
