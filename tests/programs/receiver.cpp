#include "programs/receiver.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

namespace {

constexpr std::chrono::seconds kPatience(60);  // an emulated machine is slow

bool readable(int fd, int stop) {
  pollfd polled[] = {{fd, POLLIN, 0}, {stop, POLLIN, 0}};
  return poll(polled, 2, -1) > 0 && polled[1].revents == 0;
}

}  // namespace

std::string summary(const LogSocket &record) {
  return std::string(record.szQueueID) + ' ' + record.szMailTo + ' ' +
         std::to_string(record.status);
}

Receiver::Receiver(std::string path, size_t diesAfter)
    : path_(std::move(path)),
      diesAfter_(diesAfter),
      listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  EXPECT_EQ(pipe2(stop_, O_CLOEXEC), 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, path_.c_str(), sizeof(address.sun_path) - 1);
  unlink(path_.c_str());
  EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
  EXPECT_EQ(listen(listener_, 20), 0);
  thread_ = std::thread([this] { serve(); });
}

Receiver::~Receiver() {
  EXPECT_EQ(write(stop_[1], "", 1), 1);
  thread_.join();
  for (const int fd : {stop_[0], stop_[1]}) close(fd);
  if (!dead_) unlink(path_.c_str());
}

void Receiver::serve() {
  while (!dead_ && readable(listener_, stop_[0])) {
    const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) break;
    bool first = true;
    while (readable(connection, stop_[0]) && take(connection, first)) first = false;
    close(connection);
  }
  close(listener_);
}

bool Receiver::take(int connection, bool first) {
  LogSocket record;
  const ssize_t length = recv(connection, &record, sizeof(record), 0);
  const std::lock_guard<std::mutex> lock(mutex_);
  if (first) ++(length > 0 ? connections_ : emptyConnections_);
  if (length <= 0) return false;
  if (length == sizeof(record)) {
    records_.push_back(record);
    connectionOfEach_.push_back(connections_);
  } else {
    ++partialReads_;
  }
  dead_ = records_.size() >= diesAfter_;
  changed_.notify_all();
  return !dead_;
}

std::vector<std::string> Receiver::await(size_t records) {
  std::unique_lock<std::mutex> lock(mutex_);
  EXPECT_TRUE(
      changed_.wait_for(lock, kPatience, [&] { return records_.size() >= records; }))
      << records_.size() << " of " << records << " records came";
  std::vector<std::string> texts;
  for (const LogSocket &record : records_) texts.push_back(summary(record));
  return texts;
}

void Receiver::awaitDeath() {
  std::unique_lock<std::mutex> lock(mutex_);
  EXPECT_TRUE(changed_.wait_for(lock, kPatience, [&] { return dead_; }));
}

std::vector<LogSocket> Receiver::records() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return records_;
}

size_t Receiver::connections() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return connections_;
}

size_t Receiver::emptyConnections() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return emptyConnections_;
}

std::vector<size_t> Receiver::connectionOfEach() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return connectionOfEach_;
}

size_t Receiver::partialReads() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return partialReads_;
}
