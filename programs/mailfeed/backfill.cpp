// Standard input instead of a log that grows: an old log, or several, read once.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <iostream>
#include <stdexcept>

#include "feed.h"
#include "say.h"

namespace {

constexpr size_t kChunk = 65536;

// When the input was written at the latest.
int64_t inputTime() {
  struct stat status;
  const bool isFile = fstat(STDIN_FILENO, &status) == 0 && S_ISREG(status.st_mode);
  return isFile ? status.st_mtime : time(nullptr);
}

class Backfill {
 public:
  Backfill(const std::string &socket, int year, Stop &stop)
      : stop_(stop), collector_(socket, stop, [] {}) {
    year == 0 ? reader_.stamps().writtenBy(inputTime())
              : reader_.stamps().beginInYear(year);
  }

  bool run() {
    while (!ended_) {
      const bool ready = stop_.wait(STDIN_FILENO);
      if (stop_.requested()) return false;
      if (!ready) continue;
      fill();
      takeLines();
      if ((ended_ || waiting_.size() >= Collector::kBatch) && !handOver()) return false;
    }
    tellCounts();
    return true;
  }

 private:
  void fill() {
    const size_t size = buffer_.size();
    buffer_.resize(size + kChunk);
    const ssize_t length = read(STDIN_FILENO, &buffer_[size], kChunk);
    if (length < 0 && errno != EINTR && errno != EAGAIN)
      throw std::runtime_error(because("cannot read standard input", errno));
    buffer_.resize(size + static_cast<size_t>(std::max<ssize_t>(length, 0)));
    ended_ = length == 0;
  }

  // The last line may lack its newline.
  void takeLines() {
    size_t start = 0;
    for (size_t end; (end = buffer_.find('\n', start)) != std::string::npos;
         start = end + 1)
      reader_.take(std::string_view(buffer_).substr(start, end - start), &waiting_);
    buffer_.erase(0, start);
    if (buffer_.empty() || (!ended_ && buffer_.size() < kLongestLine)) return;
    reader_.take(buffer_, &waiting_);
    buffer_.clear();
  }

  bool handOver() {
    if (waiting_.empty()) return true;
    if (!collector_.send(waiting_)) return false;
    reader_.counters().sent += waiting_.size();
    waiting_.clear();
    return true;
  }

  void tellCounts() const {
    const Counters &count = reader_.counters();
    std::cerr << "mailfeed: " << count.lines << " lines, " << count.notUnderstood
              << " not understood, " << count.sent << " records sent\n";
  }

  Stop &stop_;
  Collector collector_;
  LogReader reader_;
  std::vector<Delivery> waiting_;
  std::string buffer_;
  bool ended_ = false;
};

}  // namespace

bool backfill(const std::string &socket, int year, Stop &stop) {
  return Backfill(socket, year, stop).run();
}
