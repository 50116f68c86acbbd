// The feed itself: from the log to the collector, until it is told to stop.

#ifndef POSTWELL_MAILFEED_FEED_H_
#define POSTWELL_MAILFEED_FEED_H_

#include <memory>
#include <string>
#include <vector>

#include "collector.h"
#include "folder_watch.h"
#include "log_follower.h"
#include "log_reader.h"
#include "stop.h"

struct FeedFiles {
  std::string log;
  std::string state;  // beside it lie the lock and the status
  std::string socket;
};

class Feed {
 public:
  // Takes up what the last run has saved. Throws when the state cannot be read, another
  // feed works on it, or the log's folder cannot be watched.
  Feed(FeedFiles files, Stop &stop);

  // Returns when told to stop; what was not taken by the collector comes again in the
  // next run. Throws when the log's folder cannot be watched.
  void run();

 private:
  void lock();
  void restore();
  bool readOn();
  bool handOver();
  void saveIfDue(bool due);
  void showStatus();

  const FeedFiles files_;
  Stop &stop_;
  Descriptor lock_;
  LogReader reader_;
  FolderWatch watch_;
  std::unique_ptr<LogFollower> log_;
  Collector collector_;
  std::vector<Delivery> waiting_;
  uint64_t savedLines_ = 0;  // lines read when the state was saved last
  uint64_t savedInode_ = 0;  // the file that was read then
  std::string shown_;        // the status, as it was written last
  std::string saveFailure_;  // "" while saving works
};

// Reads standard input to its end, once, and hands over what it tells; saves nothing. The
// year is that of the first line, 0 when it is to be found out. False when told to stop
// before the end.
bool backfill(const std::string &socket, int year, Stop &stop);

#endif  // POSTWELL_MAILFEED_FEED_H_
