// What is known of the messages in Postfix's queue, and what became of them.

#ifndef POSTWELL_MAILFEED_MESSAGES_H_
#define POSTWELL_MAILFEED_MESSAGES_H_

#include <cstdint>
#include <list>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "delivery_line.h"
#include "record.h"

// One message in the queue. Its texts are bounded and clean (see cleanText()).
struct Message {
  std::string queueId;
  std::string messageId;
  std::string from;
  int64_t size = 0;
  bool active = false;  // has reached the queue
  int64_t seen = 0;     // when it was logged last, on Messages's clock
  std::set<std::string, std::less<>> deferred;  // recipients that are still tried
};

// A line about a message, and when it was written.
struct MessageLine : QueueLine {
  int64_t time = 0;
};

class Messages {
 public:
  // Learns from the line, and adds what was delivered, bounced or put off by it. False
  // when the line looks like one that tells of that but could not be understood.
  bool take(const MessageLine &line, std::vector<Delivery> *deliveries);

  // Those that have not reached the queue yet, then those in it, each in the order in
  // which they were logged last. Memory is bounded: beyond 1,000 of the ones and 20,000
  // of the others, 16 MB in all, or after a week without a line, the oldest are
  // forgotten.
  std::vector<const Message *> all() const;
  uint64_t forgotten() const { return forgotten_; }

  // To keep it for the next run: adds a message behind all others; the clock is
  // that of `seen`.
  void restore(Message message);
  void restoreClock(int64_t clock, uint64_t forgotten);
  int64_t clock() const { return clock_; }

 private:
  using Place = std::list<Message>::iterator;

  void tick(int64_t time);
  Message *find(std::string_view queueId);
  Message &findOrAdd(std::string_view queueId);
  std::list<Message> &listOf(const Message &message);
  void add(Message message);
  void enqueue(Message *message);
  void erase(std::string_view queueId);
  void forgetOldest();
  bool forgetIf(bool tooMany, const std::list<Message> &messages);
  void setMessageId(const MessageLine &line, std::string_view text);
  bool takeSender(const MessageLine &line, std::vector<Delivery> *deliveries);
  bool takeRecipient(const MessageLine &line, std::vector<Delivery> *deliveries);
  void remember(Message *message, std::string_view recipient);
  void cross(Message *message, std::string_view recipient);

  // What strangers begin and never send must not displace what is in the queue.
  std::list<Message> arriving_, queued_;
  std::unordered_map<std::string_view, Place> places_;  // keys point into the messages
  size_t bytes_ = 0;                                    // of all messages
  int64_t clock_ = 0;  // seconds that have passed in the log; see tick()
  int64_t last_ = 0;   // time of the last line
  uint64_t forgotten_ = 0;
};

#endif  // POSTWELL_MAILFEED_MESSAGES_H_
