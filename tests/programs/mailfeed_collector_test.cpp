// Handing deliveries over: on one connection, all or none counted as sent.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
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

class Sending : public testing::Test {
 protected:
  Sending() { unlink(kSocket.c_str()); }

  // A stop is asked for by a signal to this process; it stays blocked after the test.
  Stop stop_;
  std::promise<void> away_;
  bool wasAway_ = false;
  Collector collector_{kSocket, stop_, [this] {
                         wasAway_ = true;
                         away_.set_value();
                       }};
};

TEST_F(Sending, OneConnectionInOrder) {
  Receiver receiver(kSocket);
  const auto batch = deliveries(300);
  EXPECT_TRUE(collector_.send(batch));
  // Sent means taken: nothing is waited for here.
  EXPECT_EQ(receiver.records().size(), 300u);
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
