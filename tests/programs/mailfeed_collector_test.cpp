// Handing deliveries over: on one connection, all or none counted as sent, and none
// before the collector has stored them.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <future>

#include "collector.h"
#include "programs/receiver.h"

namespace {

const std::string kSocket = "/tmp/collector.sock";

std::vector<Delivery> deliveries(size_t count) {
  std::vector<Delivery> made(count);
  for (size_t i = 0; i < count; ++i) {
    made[i].queueId = "Q" + std::to_string(100000 + i);
    made[i].to = "b@x";
    made[i].status = STATUS_RECEIVE;
  }
  return made;
}

std::vector<std::string> summaries(const std::vector<Delivery> &deliveries) {
  std::vector<std::string> texts;
  for (const Delivery &delivery : deliveries)
    texts.push_back(summary(makeRecord(delivery)));
  return texts;
}

int boundSocket() {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, kSocket.c_str(), sizeof(address.sun_path) - 1);
  EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
  return fd;
}

// Takes the next connection, reads it to its end, and says how many bytes came.
size_t readOne(int listener, int *connection) {
  *connection = accept(listener, nullptr, nullptr);
  size_t bytes = 0;
  char buffer[65536];
  for (ssize_t length; (length = recv(*connection, buffer, sizeof(buffer), 0)) > 0;)
    bytes += static_cast<size_t>(length);
  return bytes;
}

class Sending : public testing::Test {
 protected:
  Sending() { unlink(kSocket.c_str()); }

  // Sends three, and takes them from the listener's first connection, which stays open.
  std::future<bool> sendTo(int listener) {
    auto sent =
        std::async(std::launch::async, [this] { return collector_.send(deliveries(3)); });
    EXPECT_EQ(readOne(listener, &connection_), 3 * sizeof(LogSocket));
    return sent;
  }

  // A stop is asked for by a signal to this process; it stays blocked after the test.
  Stop stop_;
  std::promise<void> away_;
  bool wasAway_ = false;
  int connection_ = -1;
  Collector collector_{kSocket, stop_, [this] {
                         wasAway_ = true;
                         away_.set_value();
                       }};
};

TEST_F(Sending, OneConnectionInOrder) {
  Receiver receiver(kSocket);
  const auto batch = deliveries(300);
  EXPECT_TRUE(collector_.send(batch));
  // Sent means stored: nothing is waited for here. The collector stores before it takes
  // the next connection.
  EXPECT_EQ(receiver.records().size(), 300u);
  EXPECT_EQ(receiver.emptyConnections(), 1u);
  EXPECT_EQ(receiver.await(300), summaries(batch));
  EXPECT_EQ(receiver.connections(), 1u);
  EXPECT_EQ(receiver.partialReads(), 0u);
  EXPECT_FALSE(wasAway_);
  EXPECT_TRUE(collector_.send(batch));
  EXPECT_EQ(receiver.connections(), 2u);
}

TEST_F(Sending, TwentyThousandRecords) {
  Receiver receiver(kSocket);
  EXPECT_TRUE(collector_.send(deliveries(20000)));
  EXPECT_EQ(receiver.records().size(), 20000u);
  EXPECT_EQ(receiver.connections(), 1u);
  EXPECT_EQ(receiver.partialReads(), 0u);
}

TEST_F(Sending, ACollectorThatIsAwayIsWaitedFor) {
  const auto batch = deliveries(10);
  auto sent = std::async(std::launch::async, [&] { return collector_.send(batch); });
  away_.get_future().wait();
  EXPECT_TRUE(collector_.isAway());
  Receiver receiver(kSocket);
  EXPECT_TRUE(sent.get());
  EXPECT_FALSE(collector_.isAway());
  EXPECT_EQ(receiver.await(10), summaries(batch));
}

// Its file is there, but nobody listens any more.
TEST_F(Sending, ASocketWithoutAListenerIsWaitedFor) {
  close(boundSocket());
  auto sent =
      std::async(std::launch::async, [&] { return collector_.send(deliveries(3)); });
  away_.get_future().wait();
  Receiver receiver(kSocket);
  EXPECT_TRUE(sent.get());
  EXPECT_EQ(receiver.await(3).size(), 3u);
}

// Whatever it had taken, the whole batch comes again: it may have lost all.
TEST_F(Sending, ACollectorThatDiesInTheMiddleGetsAllAgain) {
  for (const size_t after : {1U, 7U, 999U}) {
    const auto batch = deliveries(1000);
    std::promise<void> again;
    Collector collector(kSocket, stop_, [&] { again.set_value(); });
    std::future<bool> sent;
    {
      Receiver dying(kSocket, after);
      sent = std::async(std::launch::async, [&] { return collector.send(batch); });
      dying.awaitDeath();
      again.get_future().wait();
    }
    Receiver receiver(kSocket);
    EXPECT_TRUE(sent.get());
    EXPECT_EQ(receiver.await(1000), summaries(batch));
  }
}

TEST_F(Sending, ACollectorThatIsKilledBeforeItTakesTheNextConnectionGetsAllAgain) {
  const auto batch = deliveries(1000);
  std::future<bool> sent;
  {
    Receiver killed(kSocket, 1000);
    sent = std::async(std::launch::async, [&] { return collector_.send(batch); });
    away_.get_future().wait();
    EXPECT_EQ(killed.records().size(), 1000u);
  }
  Receiver receiver(kSocket);
  EXPECT_TRUE(sent.get());
  EXPECT_EQ(receiver.await(1000), summaries(batch));
}

// It closes its socket, removes it, and then stores what it holds.
TEST_F(Sending, ACollectorThatEndsInOrderHasStoredAll) {
  const int listener = boundSocket();
  ASSERT_EQ(listen(listener, 20), 0);
  auto sent = sendTo(listener);
  close(connection_);
  pollfd polled = {listener, POLLIN, 0};
  ASSERT_EQ(poll(&polled, 1, 60000), 1);  // the empty connection is in the queue
  close(listener);
  unlink(kSocket.c_str());
  EXPECT_TRUE(sent.get());
  EXPECT_FALSE(wasAway_);
}

// The first one may have been killed; that the second one takes connections says nothing.
TEST_F(Sending, AnotherCollectorInItsPlaceGetsAllAgain) {
  const int listener = boundSocket();
  ASSERT_EQ(listen(listener, 20), 0);
  auto sent = sendTo(listener);
  unlink(kSocket.c_str());
  int ready[2];
  ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
  const pid_t other = fork();
  if (other == 0) {
    close(listener);
    close(connection_);
    const int second = boundSocket();
    if (listen(second, 20) != 0 || write(ready[1], "", 1) != 1) _exit(1);
    for (size_t bytes = 0; bytes == 0;) bytes = readOne(second, &connection_);
    _exit(0);  // ends the connection, as if it had stored all, and is killed
  }
  char byte;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  close(listener);
  close(connection_);
  int status = -1;
  EXPECT_EQ(waitpid(other, &status, 0), other);
  EXPECT_EQ(status, 0);  // all came again
  Receiver receiver(kSocket);
  EXPECT_TRUE(sent.get());
}

TEST_F(Sending, AConnectionThatIsNeverAcceptedIsNotSent) {
  const int listener = boundSocket();
  ASSERT_EQ(listen(listener, 20), 0);
  auto sent =
      std::async(std::launch::async, [&] { return collector_.send(deliveries(3)); });
  pollfd polled = {listener, POLLIN, 0};
  ASSERT_EQ(poll(&polled, 1, 60000), 1);  // it is in the queue
  close(listener);
  away_.get_future().wait();
  Receiver receiver(kSocket);
  EXPECT_TRUE(sent.get());
  EXPECT_EQ(receiver.await(3).size(), 3u);
}

TEST_F(Sending, StopEndsTheWaiting) {
  auto sent =
      std::async(std::launch::async, [&] { return collector_.send(deliveries(3)); });
  away_.get_future().wait();
  kill(getpid(), SIGTERM);
  EXPECT_FALSE(sent.get());
  EXPECT_TRUE(stop_.requested());
}

TEST_F(Sending, StopLetsACollectorThatIsThereTakeAll) {
  Receiver receiver(kSocket);
  kill(getpid(), SIGINT);
  EXPECT_FALSE(stop_.wait(-1));
  EXPECT_TRUE(stop_.requested());
  EXPECT_TRUE(collector_.send(deliveries(2000)));
  EXPECT_EQ(receiver.records().size(), 2000u);
}

TEST_F(Sending, StopWaitsOnlyAWhileForACollectorThatHangs) {
  const int listener = boundSocket();
  ASSERT_EQ(listen(listener, 20), 0);
  kill(getpid(), SIGTERM);
  EXPECT_FALSE(stop_.wait(-1));
  EXPECT_FALSE(collector_.send(deliveries(3)));     // waits for the end of the connection
  EXPECT_FALSE(collector_.send(deliveries(3000)));  // waits for room in it
  EXPECT_EQ(stop_.grace().count(), 0);
  close(listener);
}

TEST_F(Sending, AnEndlessPathIsNoCrash) {
  Collector collector("/tmp/" + std::string(200, 'x'), stop_, [] {});
  kill(getpid(), SIGTERM);
  EXPECT_FALSE(collector.send(deliveries(1)));
}

}  // namespace
