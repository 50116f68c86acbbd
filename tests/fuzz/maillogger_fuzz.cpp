// Anything at all as what a sender writes to the mail log's collector: each record must
// become the row that a plain reading of its bytes gives.

#include <maillogger.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "fuzz.h"
#include "support/connections.h"

namespace {

constexpr char kSocket[] = "/var/run/maillog.sock";
const std::string kFolder = "/var/packages/Postwell/target/etc/maillog/";
constexpr size_t kRecord = 1292;
constexpr size_t kMostBytes = 16 * kRecord;  // what the socket takes without a reader

struct Row {
  std::string texts[4];  // message_id, queue_id, mail_from, mail_to
  int32_t numbers[3];    // date, size, status
};

MailLogger *logger = nullptr;  // never ended by exit(), which ends SQLite's parts first
std::vector<Row> expected;     // since the log was made

// ---- the plain reading

std::string textAt(const std::string &record, size_t offset) {
  return record.substr(offset, record.find('\0', offset) - offset);
}

int32_t numberAt(const std::string &record, size_t offset) {
  int32_t number;
  memcpy(&number, record.data() + offset, sizeof number);
  return number;
}

Row rowOf(const std::string &record) {
  return {
      {textAt(record, 260), textAt(record, 4), textAt(record, 772), textAt(record, 1028)},
      {numberAt(record, 0), numberAt(record, 1284), numberAt(record, 1288)}};
}

size_t statementLength(const Row &row) {
  size_t length =
      strlen("INSERT INTO 'mail_log_table' VALUES('', '', '', '', '', '', '')");
  for (const std::string &text : row.texts)
    length +=
        text.size() + static_cast<size_t>(std::count(text.begin(), text.end(), '\''));
  for (const int32_t number : row.numbers) length += std::to_string(number).size();
  return length;
}

// ---- the collector

void begin() {
  delete logger;
  std::filesystem::remove_all(kFolder);
  expected.clear();
  logger = new MailLogger(INT_MAX, INT_MAX);
  if (logger->error() != 0) fail("the collector cannot start (run me by script/fuzz)");
  connections::closeLeft();  // of the files that were made
}

void send(const std::string &bytes) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strcpy(address.sun_path, kSocket);
  const int sender = socket(AF_UNIX, SOCK_STREAM, 0);
  if (connect(sender, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
    fail("cannot connect");
  if (write(sender, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
    fail("cannot send");
  close(sender);
}

void compare(const Row &row, sqlite3_stmt *stored) {
  const int textColumns[] = {0, 1, 3, 4}, numberColumns[] = {2, 5, 6};
  for (size_t i = 0; i < 4; i++) {
    const auto *text =
        reinterpret_cast<const char *>(sqlite3_column_text(stored, textColumns[i]));
    if (text == nullptr || row.texts[i] != text) fail("a text differs");
  }
  for (size_t i = 0; i < 3; i++)
    if (sqlite3_column_int64(stored, numberColumns[i]) != row.numbers[i])
      fail("a number differs");
}

void compareAll(bool tooLong) {
  sqlite3 *db = nullptr;
  sqlite3_stmt *stored = nullptr;
  if (sqlite3_open_v2((kFolder + "maillog.db").c_str(), &db, SQLITE_OPEN_READWRITE,
                      nullptr) != SQLITE_OK ||
      sqlite3_prepare_v2(db, "select * from mail_log_table order by rowid;", -1, &stored,
                         nullptr) != SQLITE_OK)
    fail("the log cannot be read");
  size_t count = 0;
  while (sqlite3_step(stored) == SQLITE_ROW && count < expected.size())
    compare(expected[count++], stored);
  if (count != (tooLong ? 0 : expected.size())) fail("entries are missing");
  sqlite3_finalize(stored);
  sqlite3_close(db);
}

}  // namespace

// Entries outlive their input; looking for leaks after each would take nearly all the
// time. The unit tests look for them.
extern "C" const char *__asan_default_options() { return "detect_leaks=0"; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (logger == nullptr) begin();
  const std::string bytes(reinterpret_cast<const char *>(data),
                          std::min(size, kMostBytes));
  std::string record(kRecord, '\0');
  std::vector<Row> rows;
  bool tooLong = false;
  for (size_t at = 0; at < bytes.size(); at += kRecord) {
    const size_t length = std::min(kRecord, bytes.size() - at);
    record.replace(0, length, bytes, at, length);
    rows.push_back(rowOf(record));
    tooLong = tooLong || statementLength(rows.back()) > 2047;
  }
  // Making the log anew takes as long as a hundred other inputs: one in 32 has to do.
  if (tooLong && std::hash<std::string>()(bytes) % 32 != 0) return 0;
  send(bytes);
  logger->receiveLog();
  expected.insert(expected.end(), rows.begin(), rows.end());
  if (!tooLong && expected.size() <= 200) return 0;
  logger->flushLogToDB();
  if (logger->error() != 0) fail("the entries cannot be stored");
  compareAll(tooLong);  // one that is too long costs the whole log
  begin();
  return 0;
}
