// Anything at all as Postfix's log, and as the feed's saved state: each record must fit
// the collector's statement and hold valid text, and what is saved must be found again.

#include <sqlite3.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "common/text.h"
#include "fingerprint.h"
#include "fuzz.h"
#include "log_reader.h"
#include "record.h"
#include "state_file.h"

namespace {

template <size_t Size>
void checkText(const char (&field)[Size]) {
  if (strnlen(field, Size) == Size) fail("a text is not terminated");
  if (!isUtf8(field) || hasControl(field)) fail("a text is not clean");
}

void checkRecord(const LogSocket &record) {
  checkText(record.szQueueID);
  checkText(record.szMessageID);
  checkText(record.szMailFrom);
  checkText(record.szMailTo);
  char *const statement = sqlite3_mprintf(
      "INSERT INTO '%q' VALUES('%q', '%q', '%d', '%q', '%q', '%d', '%d')",
      "mail_log_table", record.szMessageID, record.szQueueID,
      static_cast<int>(record.log_time), record.szMailFrom, record.szMailTo,
      static_cast<int>(record.mail_size), static_cast<int>(record.status));
  if (statement == nullptr || strlen(statement) > 2047) fail("a statement is too long");
  sqlite3_free(statement);
}

void checkState(const LogReader &reader) {
  const Position position = {1, 2, {3, 4}, 5, {{6, 7}}};
  const std::string text = stateText(position, reader);
  Position found;
  LogReader other;
  if (!parseState(text, &found, &other)) fail("what was saved is not understood");
  if (stateText(found, other) != text) fail("what was saved is not what is found");
}

void readLog(std::string_view text) {
  LogReader reader;
  reader.stamps().writtenBy(1795244400);
  std::vector<Delivery> deliveries;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(text.size(), line.size() + 1));
    reader.take(line, &deliveries);
  }
  for (const Delivery &delivery : deliveries) checkRecord(makeRecord(delivery));
  checkState(reader);
}

// As it is, and as if it were a whole file.
void readState(const std::string &text) {
  Position position;
  LogReader first, second;
  parseState(text, &position, &first);
  const std::string body = "mailfeed-state\t1\n" + text;
  const std::string end = "end\t" + std::to_string(fingerprintOf(body)) + '\n';
  if (parseState(body + end, &position, &second)) (void)stateText(position, second);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);
  readLog(text);
  readState(text);
  return 0;
}
