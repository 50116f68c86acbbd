// Lines of words parted by tabs, which the texts in them cannot hold (see cleanText()):
//
//   mailfeed-state 1
//   log      DEVICE INODE OFFSET FINGERPRINT WRITTEN
//   read     OFFSET FINGERPRINT                               end of another log file
//   count    LINES NOT-UNDERSTOOD SENT FORGOTTEN LAST-TIME CLOCK
//   message  QUEUE-ID SEEN ACTIVE SIZE MESSAGE-ID FROM        in the order of `seen`
//   to       RECIPIENT                                        deferred, of that message
//   end      FINGERPRINT of all lines before

#include "state_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <memory>
#include <vector>

#include "fingerprint.h"
#include "say.h"

namespace {

constexpr char kHeader[] = "mailfeed-state\t1\n";
constexpr char kEnd[] = "end\t";

void addWord(std::string *text, std::string_view word) {
  text->append("\t").append(word);
}
void addWord(std::string *text, uint64_t number) {
  addWord(text, std::to_string(number));
}
void addWord(std::string *text, int64_t number) { addWord(text, std::to_string(number)); }

template <class... Words>
void addLine(std::string *text, const char *name, const Words &...words) {
  text->append(name);
  (addWord(text, words), ...);
  text->append("\n");
}

bool parseWord(std::string_view word, std::string *value) {
  *value = word;
  return true;
}

template <class Number>
bool parseWord(std::string_view word, Number *number) {
  const auto [end, error] =
      std::from_chars(word.data(), word.data() + word.size(), *number);
  return error == std::errc() && end == word.data() + word.size();
}

// What stands before the separator, taken off the front with it; all, if there is none.
std::string_view takeUntil(std::string_view *text, char separator) {
  const std::string_view part = text->substr(0, text->find(separator));
  text->remove_prefix(std::min(text->size(), part.size() + 1));
  return part;
}

// The words of a line, as many as there are values.
template <class... Values>
bool parseLine(std::string_view words, Values *...values) {
  return (parseWord(takeUntil(&words, '\t'), values) && ...) && words.empty();
}

bool parseMessage(std::string_view words, Message *message) {
  uint64_t active = 0;
  if (!parseLine(words, &message->queueId, &message->seen, &active, &message->size,
                 &message->messageId, &message->from))
    return false;
  message->active = active != 0;
  return true;
}

bool parseCounters(std::string_view words, LogReader *reader) {
  Counters &count = reader->counters();
  uint64_t forgotten = 0;
  int64_t clock = 0;
  if (!parseLine(words, &count.lines, &count.notUnderstood, &count.sent, &forgotten,
                 &count.lastTime, &clock))
    return false;
  reader->messages().restoreClock(clock, forgotten);
  return true;
}

// Takes the last line off, when it fits what stands before it.
bool takeEnd(std::string_view *text) {
  const size_t at = text->rfind(kEnd);
  if (at == std::string_view::npos || text->back() != '\n') return false;
  std::string_view end = text->substr(at + sizeof(kEnd) - 1);
  end.remove_suffix(1);
  *text = text->substr(0, at);
  uint64_t fingerprint = 0;
  return parseWord(end, &fingerprint) && fingerprint == fingerprintOf(*text);
}

using File = std::unique_ptr<std::FILE, int (*)(std::FILE *)>;

bool writeAll(const std::string &path, const std::string &text, mode_t mode, bool sync) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) return false;
  std::FILE *const file = fdopen(fd, "w");
  if (file == nullptr) {
    close(fd);  // out of memory; nothing was written
    return false;
  }
  bool written = fwrite(text.data(), 1, text.size(), file) == text.size() &&
                 fflush(file) == 0 && (!sync || fsync(fd) == 0);
  const int error = errno;
  if (fclose(file) != 0) return false;
  if (!written) errno = error;
  return written;
}

}  // namespace

std::string stateText(const Position &position, const LogReader &reader) {
  const Counters &count = reader.counters();
  const Messages &messages = reader.messages();
  std::string text = kHeader;
  addLine(&text, "log", position.device, position.inode, position.mark.offset,
          position.mark.fingerprint, position.written);
  for (const Mark &end : position.finished)
    addLine(&text, "read", end.offset, end.fingerprint);
  addLine(&text, "count", count.lines, count.notUnderstood, count.sent,
          messages.forgotten(), count.lastTime, messages.clock());
  for (const Message *const each : messages.all()) {
    const Message &message = *each;
    addLine(&text, "message", message.queueId, message.seen,
            static_cast<uint64_t>(message.active), message.size, message.messageId,
            message.from);
    for (const std::string &recipient : message.deferred) addLine(&text, "to", recipient);
  }
  const uint64_t fingerprint = fingerprintOf(text);
  addLine(&text, "end", fingerprint);
  return text;
}

bool parseState(std::string_view text, Position *position, LogReader *reader) {
  if (!takeEnd(&text) || !takeStart(&text, kHeader)) return false;
  std::vector<Message> messages;
  while (!text.empty()) {
    std::string_view words = takeUntil(&text, '\n');
    const std::string_view name = takeUntil(&words, '\t');
    bool good = false;
    if (name == "log") {
      good = parseLine(words, &position->device, &position->inode, &position->mark.offset,
                       &position->mark.fingerprint, &position->written);
    } else if (name == "read") {
      Mark &end = position->finished.emplace_back();
      good = parseLine(words, &end.offset, &end.fingerprint);
    } else if (name == "count") {
      good = parseCounters(words, reader);
    } else if (name == "message") {
      good = parseMessage(words, &messages.emplace_back());
    } else if (name == "to" && !messages.empty()) {
      good = messages.back().deferred.emplace(words).second;
    }
    if (!good) return false;
  }
  for (Message &message : messages) reader->messages().restore(std::move(message));
  return true;
}

std::string replaceFile(const std::string &path, const std::string &text, mode_t mode,
                        bool sync) {
  const std::string name = path + ".new";
  if (!writeAll(name, text, mode, sync)) {
    const int error = errno;
    unlink(name.c_str());  // it may never have been made
    return because("cannot write " + name, error);
  }
  if (rename(name.c_str(), path.c_str()) != 0)
    return because("cannot replace " + path, errno);
  return "";
}

bool readWhole(const std::string &path, std::string *text) {
  const File file(std::fopen(path.c_str(), "re"), std::fclose);
  if (!file) return false;
  char bytes[65536];
  for (size_t length; (length = fread(bytes, 1, sizeof(bytes), file.get())) > 0;)
    text->append(bytes, length);
  return ferror(file.get()) == 0;
}
