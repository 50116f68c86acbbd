#include "support/mail_log.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

namespace collector {

namespace fs = std::filesystem;

// ---- records

LogSocket record(const Entry &entry) {
  LogSocket made{};
  const auto set = [](char *field, size_t size, const std::string &text) {
    memcpy(field, text.data(), std::min(size, text.size()));
  };
  made.log_time = entry.time;
  set(made.szQueueID, sizeof made.szQueueID, entry.queue);
  set(made.szMessageID, sizeof made.szMessageID, entry.id);
  set(made.szMailFrom, sizeof made.szMailFrom, entry.from);
  set(made.szMailTo, sizeof made.szMailTo, entry.to);
  made.mail_size = entry.size;
  made.status = entry.status;
  return made;
}

LogSocket numbered(int number) {
  Entry entry;
  entry.id = std::to_string(number);
  return record(entry);
}

std::string bytesOf(const LogSocket &record) {
  return {reinterpret_cast<const char *>(&record), sizeof record};
}

void send(const std::vector<std::string> &writes) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strcpy(address.sun_path, kSocket.c_str());
  const int sender = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_EQ(connect(sender, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  for (const std::string &bytes : writes)
    ASSERT_EQ(write(sender, bytes.data(), bytes.size()),
              static_cast<ssize_t>(bytes.size()));
  close(sender);
}

// ---- what is stored

Rows logRows(const std::string &path) {
  return database::rowsOf(path, "select * from mail_log_table order by rowid;");
}

Rows idsIn(const std::string &path) {
  return database::rowsOf(path, "select message_id from mail_log_table order by rowid;");
}

long countIn(const std::string &path) {
  return std::stol(database::rowsOf(path, "select count(*) from mail_log_table;").at(0));
}

std::vector<std::string> savedLogs() {
  std::vector<std::string> names;
  for (const auto &entry : fs::directory_iterator(kFolder)) {
    const std::string name = entry.path().filename();
    if (name.rfind("maillog.db", 0) != 0) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

Rows allIds() {
  std::vector<std::string> paths;
  for (const auto &entry : fs::directory_iterator(kFolder))
    if (entry.path().extension() == ".db") paths.push_back(entry.path());
  Rows all;
  for (const std::string &path : paths) {
    for (const std::string &line : database::rowsOf(path, "pragma integrity_check;"))
      if (line != "ok") all.push_back(path + ": " + line);
    const Rows ids = idsIn(path);
    all.insert(all.end(), ids.begin(), ids.end());
  }
  std::sort(all.begin(), all.end());
  return all;
}

}  // namespace collector
