// The sending side of the collector's socket.

#ifndef POSTWELL_MAILFEED_COLLECTOR_H_
#define POSTWELL_MAILFEED_COLLECTOR_H_

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "descriptor.h"
#include "record.h"
#include "stop.h"

class Collector {
 public:
  // As many deliveries at once make good use of a connection: the collector looks after
  // its database only between two connections.
  static constexpr size_t kBatch = 20000;

  // `onAway` is called whenever the collector turns out to be away.
  Collector(std::string path, Stop &stop, std::function<void()> onAway)
      : path_(std::move(path)), stop_(stop), onAway_(std::move(onAway)) {}

  // Hands the deliveries over on one connection, and waits until the collector has stored
  // all; while it is away, tries again and again. False when told to stop before that:
  // then none of them may be counted as sent, although some may have arrived.
  bool send(const std::vector<Delivery> &deliveries);

  bool isAway() const { return away_; }

 private:
  bool attempt(const std::vector<Delivery> &deliveries);
  bool write(int fd, const LogSocket &record);
  bool awaitEnd(int fd);
  bool awaitStored(pid_t listener);
  bool ready(int fd, short events);
  bool isOver() const;
  void tell(bool away);

  const std::string path_;
  Stop &stop_;
  const std::function<void()> onAway_;
  bool away_ = false;
};

#endif  // POSTWELL_MAILFEED_COLLECTOR_H_
