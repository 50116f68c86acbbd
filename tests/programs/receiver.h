// The receiving side of the mail log's socket, as the collector has it: one connection
// after the other, read 1292 bytes at a time to its end.

#ifndef POSTWELL_TESTS_RECEIVER_H_
#define POSTWELL_TESTS_RECEIVER_H_

#include <maillogger.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class Receiver {
 public:
  static constexpr size_t kNever = SIZE_MAX;

  // Listens at the path. After `diesAfter` records it is gone in the middle of a
  // connection, as a collector that is killed: its socket stays.
  explicit Receiver(std::string path, size_t diesAfter = kNever);
  ~Receiver();
  Receiver(const Receiver &) = delete;
  Receiver &operator=(const Receiver &) = delete;

  // Waits until so many records have arrived in all, and ends the test when they do not.
  // "queue-id recipient status" of each, in order.
  std::vector<std::string> await(size_t records);
  // Waits until it has died.
  void awaitDeath();

  std::vector<LogSocket> records();
  // Those that brought something, and those that did not.
  size_t connections();
  size_t emptyConnections();
  // For each record, on which connection it came, counted from 1.
  std::vector<size_t> connectionOfEach();
  // Reads that were no whole record.
  size_t partialReads();

 private:
  void serve();
  bool take(int connection, bool first);

  const std::string path_;
  const size_t diesAfter_;
  int listener_;
  int stop_[2];
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<LogSocket> records_;
  std::vector<size_t> connectionOfEach_;
  size_t connections_ = 0;
  size_t emptyConnections_ = 0;
  size_t partialReads_ = 0;
  bool dead_ = false;
  std::thread thread_;
};

// "queue-id recipient status".
std::string summary(const LogSocket &record);

#endif  // POSTWELL_TESTS_RECEIVER_H_
