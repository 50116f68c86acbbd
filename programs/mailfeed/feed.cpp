// Read, hand over, save, in this order: a crash repeats what was handed over since the
// last save and loses nothing. While the collector is away no further line is read, so
// memory stays bounded, and the log itself is the queue.
//
// The state is saved after each batch. In between it may stay behind: the lines after the
// saved position tell the same again. Only a file that has been read to its end must not
// be asked for long after it was rotated.

#include "feed.h"

#include <fcntl.h>
#include <syslog.h>

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <stdexcept>

#include "say.h"
#include "state_file.h"
#include "status.h"

namespace {

constexpr uint64_t kLinesAtOnce = 200000;
constexpr uint64_t kUnsavedLines = 20000;
// What comes within this time after the first line goes the same way.
constexpr Stop::Milliseconds kGather(200);

}  // namespace

Feed::Feed(FeedFiles files, Stop &stop)
    : files_(std::move(files)),
      stop_(stop),
      watch_(std::filesystem::path(realPath(files_.log)).parent_path()),
      collector_(files_.socket, stop, [this] { showStatus(); }) {
  lock();
  restore();
}

// Of the kind that a child process keeps, and that others can ask for without taking it.
void Feed::lock() {
  const std::filesystem::path state = files_.state;
  std::error_code ignored;  // open() tells
  std::filesystem::create_directories(state.parent_path(), ignored);
  const std::string name = lockOf(files_.state);
  lock_ = Descriptor(open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640));
  if (!lock_.isOpen()) throw std::runtime_error(because("cannot write " + name, errno));
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  if (fcntl(lock_.get(), F_OFD_SETLK, &whole) != 0)
    throw std::runtime_error("another mailfeed works with " + files_.state);
}

// A damaged state is kept for whoever wants to know, and the log is read from its
// beginning: records are repeated rather than lost.
void Feed::restore() {
  std::string text;
  std::optional<Position> position = Position();
  if (!readWhole(files_.state, &text)) {
    if (errno != ENOENT)
      throw std::runtime_error(because("cannot read " + files_.state, errno));
    position.reset();
  } else if (!parseState(text, &*position, &reader_)) {
    const std::string aside = files_.state + ".damaged." + std::to_string(time(nullptr));
    if (rename(files_.state.c_str(), aside.c_str()) != 0)
      throw std::runtime_error(because("cannot rename " + files_.state, errno));
    say(LOG_ERR, files_.state + " is damaged and now called " + aside +
                     "; reading the log from its beginning, which repeats records");
    reader_ = LogReader();
    position.reset();
  }
  log_ = std::make_unique<LogFollower>(files_.log, position);
  savedLines_ = reader_.counters().lines;
}

void Feed::run() {
  for (bool last = false; !last;) {
    last = stop_.requested();  // what is complete by now still goes
    watch_.reset();
    const bool more = readOn();
    const bool taken = handOver();
    showStatus();
    if (!taken) return;
    if (!more && !stop_.requested() && stop_.wait(watch_.fd()))
      stop_.wait(-1, 0, kGather);
  }
}

// Reads lines until there are none for now, or enough; true then.
bool Feed::readOn() {
  std::string_view line;
  for (uint64_t lines = 0; lines < kLinesAtOnce && waiting_.size() < Collector::kBatch;
       ++lines) {
    if (!log_->next(&line)) return false;
    reader_.stamps().writtenBy(log_->written());
    reader_.take(line, &waiting_);
  }
  return true;
}

bool Feed::handOver() {
  const bool any = !waiting_.empty();
  if (any && !collector_.send(waiting_)) return false;
  reader_.counters().sent += waiting_.size();
  waiting_.clear();
  saveIfDue(any);
  return true;
}

void Feed::saveIfDue(bool due) {
  const Position position = log_->position();
  const uint64_t lines = reader_.counters().lines - savedLines_;
  if (!due && lines < kUnsavedLines && position.inode == savedInode_ &&
      !(stop_.requested() && lines > 0))
    return;
  const std::string failure =
      replaceFile(files_.state, stateText(position, reader_), 0600, true);
  if (failure != saveFailure_)
    failure.empty() ? say(LOG_NOTICE, "saving works again")
                    : say(LOG_ERR, failure + "; a restart would repeat records");
  saveFailure_ = failure;
  if (!failure.empty()) return;
  savedLines_ = reader_.counters().lines;
  savedInode_ = position.inode;
}

void Feed::showStatus() {
  const Status status = {files_.log, log_->lastLine(), &reader_, waiting_.size(),
                         collector_.isAway()};
  std::string text = statusText(status);
  if (text == shown_) return;
  // Without effect on the records; when the disk is full, saving the state says so.
  (void)replaceFile(statusOf(files_.state), text, 0640, false);
  shown_ = std::move(text);
}
