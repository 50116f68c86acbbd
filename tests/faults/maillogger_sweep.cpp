#include "faults/maillogger_sweep.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <set>

#include "support/connections.h"

using namespace collector;

namespace {

namespace fs = std::filesystem;

const std::string kPrepared = "/tmp/prepared/";  // copies of the files as they begin

void clear() {
  fs::remove_all(kFolder);
  fs::remove(kStatistic);
  fs::remove(kStatistic + "-journal");
}

void cache(MailLogger &logger, int from, int to) {
  for (int i = from; i <= to; i++) logger.cacheLog(numbered(i));
}

void prepare(const CollectorWork &work) {
  clear();
  fs::create_directories(kFolder);
  if (work.isNew) return;
  fs::copy_file(kPrepared + "maillog.db", kLog);
  fs::copy_file(kPrepared + "log_statistic.db", kStatistic);
}

}  // namespace

std::vector<CollectorWork> collectorWorks() {
  const auto flush = [](MailLogger &logger) { logger.flushLogToDB(); };
  const auto rotate = [](MailLogger &logger) {
    logger.flushLogToDB();
    logger.rotateLog();
    logger.flushLogToDB();  // makes the next file
  };
  return {{"flush", false, flush},
          {"flush to a new file", true, flush},
          {"rotation", false, rotate}};
}

CollectorSweepTest::CollectorSweepTest() {
  clear();
  {
    MailLogger made(0, 3);
    cache(made, 1, 5);
  }
  connections::closeLeft();
  fs::create_directories(kPrepared);
  for (const std::string &path : {kLog, kStatistic})
    fs::copy_file(path, kPrepared + fs::path(path).filename().string(),
                  fs::copy_options::overwrite_existing);
  log.take();
}

SweepOutcome CollectorSweepTest::sweep(const CollectorWork &work,
                                       const std::function<void(long)> &arm,
                                       const std::function<bool()> &disarm) {
  SweepOutcome outcome;
  for (long nth = 1;; nth += SWEEP_STEP) {
    prepare(work);
    bool failed = false;
    {
      MailLogger logger(0, 3);
      EXPECT_EQ(logger.error(), 0);
      if (work.isNew) fs::remove(kLog);
      cache(logger, 6, 8);
      log.take();
      arm(nth);
      work.run(logger);
      failed = disarm();
      judge(work, logger, outcome, std::string(work.name) + ", " + std::to_string(nth));
    }
    connections::closeLeft();
    log.take();
    if (!failed) return outcome;
    outcome.points++;
  }
}

void CollectorSweepTest::judge(const CollectorWork &work, MailLogger &logger,
                               SweepOutcome &outcome, const std::string &where) {
  const int error = logger.error();
  bool rebuilt = false;
  for (const LogLine &line : log.take())
    rebuilt = rebuilt || line.text.find("need regent") != std::string::npos;
  outcome.rebuilt += rebuilt;
  outcome.reported += error != 0;
  const auto expect = [&](bool holds, const std::string &what) {
    if (!holds) outcome.wrong.push_back(where + ": " + what);
  };

  const auto stored = [] {
    const Rows ids = allIds();
    return std::set<std::string>(ids.begin(), ids.end());
  };
  std::set<std::string> needed;
  for (int i = 1; i <= 8; i++)
    if (i > 5 || !(work.isNew || rebuilt)) needed.insert(std::to_string(i));
  if (error == 0 && !rebuilt)
    expect(stored() == needed, "a success that has not stored everything");
  logger.flushLogToDB();
  expect(logger.error() == 0, "it does not work again");
  std::set<std::string> found = stored();
  if (rebuilt) {  // what was stored before is gone, or not, with what it was stored in
    for (int i = 1; i <= 8; i++) needed.erase(std::to_string(i));
    for (int i = 1; i <= 8; i++) found.erase(std::to_string(i));
  }
  expect(found == needed, "entries are missing, or damaged");
  logger.cacheLog(numbered(9));
  logger.flushLogToDB();
  expect(logger.error() == 0 && stored().count("9") == 1, "the next entry is not stored");
}
