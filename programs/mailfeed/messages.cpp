// The rule by which lines become records:
//
//   received   status=sent by lmtp to a unix socket, or by local, virtual, pipe
//   sent       status=sent by smtp, or by lmtp to another host
//   bounced    status=bounced; or the message expired: each recipient still deferred
//   re-sent    status=deferred; SOFTBOUNCE, where Postfix would bounce but puts off
//   nothing    (forwarded as ID): the message ID logs its own deliveries;
//              (delivered to command: ...): vacation; a next hop that is a content filter
//              of this machine; addresses that were only probed
//
// A message begins with smtpd's "client=", pickup's "uid=" or, where Postfix itself
// writes it, cleanup's "message-id="; it ends with "removed", or when its content is
// refused, of which some ways are logged without the queue id. So a beginning puts an end
// to an older message of the same queue id, and what is never heard of again is
// forgotten.

#include "messages.h"

#include <algorithm>
#include <optional>

namespace {

constexpr size_t kAddressLimit = 255;
constexpr size_t kMessageIdLimit = 511;
constexpr size_t kNoQuoteLimit = SIZE_MAX;

constexpr size_t kQueuedLimit = 20000;
constexpr size_t kArrivingLimit = 1000;
constexpr size_t kByteLimit = 16 << 20;
constexpr size_t kNodeBytes = 100;  // what a remembered text costs beside itself
constexpr int64_t kForgetAfter = int64_t{7} * 86400;  // Postfix gives up after five days
constexpr int64_t kLongestStep = 3600;

// "127.0.0.1[127.0.0.1]:10024": one of the ports where content filters listen.
bool isFilter(std::string_view relay) {
  relay.remove_prefix(std::min(relay.size(), relay.find('[') + 1));
  return (takeStart(&relay, "127.0.0.1]:1002") || takeStart(&relay, "::1]:1002")) &&
         relay.size() == 1;
}

bool isDelivered(const RecipientText &text) {
  return !startsWith(text.reason, "forwarded as ") &&
         !startsWith(text.reason, "delivered to command:");
}

// Into a mailbox of this machine, or on to another server.
bool isReceived(std::string_view service, const RecipientText &text) {
  return service == "virtual" || service == "pipe" ||
         (service == "local" && isDelivered(text)) ||
         (service == "lmtp" && text.relay.find('/') != std::string_view::npos);
}

bool isSent(std::string_view service, const RecipientText &text) {
  return (service == "smtp" || service == "lmtp") && !isFilter(text.relay);
}

std::optional<MailStatus> outcome(std::string_view service, const RecipientText &text) {
  if (text.status == "deferred" || text.status == "SOFTBOUNCE") return STATUS_RESENT;
  if (text.status == "bounced") return STATUS_BOUNCE;
  if (text.status == "sent") {
    if (isReceived(service, text)) return STATUS_RECEIVE;
    if (isSent(service, text)) return STATUS_SENT;
  }
  return std::nullopt;  // nothing to record
}

Delivery deliveryOf(const MessageLine &line, const Message &message, std::string to,
                    MailStatus status) {
  return {line.time,
          std::string(line.queueId),
          message.messageId,
          message.from,
          std::move(to),
          message.size,
          status};
}

size_t bytesOf(const Message &message) {
  size_t bytes =
      sizeof(Message) + 2 * kNodeBytes + message.messageId.size() + message.from.size();
  for (const std::string &recipient : message.deferred)
    bytes += kNodeBytes + recipient.size();
  return bytes;
}

bool isContentRefused(const MessageLine &line) {
  return line.service == "cleanup" &&
         (startsWith(line.text, "milter-reject: END-OF-MESSAGE") ||
          startsWith(line.text, "milter-discard:") || startsWith(line.text, "reject:") ||
          startsWith(line.text, "discard:"));
}

bool isRemoved(const MessageLine &line) {
  return (line.service == "qmgr" || line.service == "postsuper") &&
         line.text == "removed";
}

bool isBeginning(const MessageLine &line) {
  return (line.service == "smtpd" && startsWith(line.text, "client=")) ||
         (line.service == "pickup" && startsWith(line.text, "uid="));
}

}  // namespace

bool Messages::take(const MessageLine &line, std::vector<Delivery> *deliveries) {
  tick(line.time);
  std::string_view text = line.text;
  if (startsWith(text, "to=<")) return takeRecipient(line, deliveries);
  if (line.service == "qmgr" && startsWith(text, "from=<"))
    return takeSender(line, deliveries);
  if (line.service == "cleanup" && takeStart(&text, "message-id="))
    setMessageId(line, text);
  else if (isBeginning(line) || isRemoved(line) || isContentRefused(line))
    erase(line.queueId);
  return true;
}

// Age is measured in what passes between the lines, an hour at most for each, so that a
// clock that is set forward for a while does not make all messages old.
void Messages::tick(int64_t time) {
  if (last_ != 0) clock_ += std::clamp<int64_t>(time - last_, 0, kLongestStep);
  last_ = time;
}

Message *Messages::find(std::string_view queueId) {
  const auto found = places_.find(queueId);
  if (found == places_.end()) return nullptr;
  Message &message = *found->second;
  std::list<Message> &messages = listOf(message);
  messages.splice(messages.end(), messages, found->second);  // now the latest
  message.seen = clock_;
  return &message;
}

Message &Messages::findOrAdd(std::string_view queueId) {
  if (Message *const known = find(queueId)) return *known;
  Message message;
  message.queueId = queueId;
  message.seen = clock_;
  add(std::move(message));
  forgetOldest();
  return *places_.at(queueId);
}

void Messages::restore(Message message) {
  if (places_.count(message.queueId) == 0) add(std::move(message));
}

std::vector<const Message *> Messages::all() const {
  std::vector<const Message *> all;
  for (const std::list<Message> *const messages : {&arriving_, &queued_})
    for (const Message &message : *messages) all.push_back(&message);
  return all;
}

void Messages::enqueue(Message *message) {
  if (message->active) return;
  queued_.splice(queued_.end(), arriving_, places_.at(message->queueId));
  message->active = true;
  forgetOldest();
}

std::list<Message> &Messages::listOf(const Message &message) {
  return message.active ? queued_ : arriving_;
}

void Messages::add(Message message) {
  bytes_ += bytesOf(message);
  std::list<Message> &messages = listOf(message);
  messages.push_back(std::move(message));
  places_.emplace(messages.back().queueId, std::prev(messages.end()));
}

void Messages::restoreClock(int64_t clock, uint64_t forgotten) {
  clock_ = clock;
  forgotten_ = forgotten;
}

void Messages::erase(std::string_view queueId) {
  const auto found = places_.find(queueId);
  if (found == places_.end()) return;
  const Place place = found->second;
  places_.erase(found);
  bytes_ -= bytesOf(*place);
  listOf(*place).erase(place);
}

void Messages::forgetOldest() {
  while (forgetIf(arriving_.size() > kArrivingLimit || bytes_ > kByteLimit, arriving_)) {
  }
  while (forgetIf(queued_.size() > kQueuedLimit || bytes_ > kByteLimit, queued_)) {
  }
}

// Forgets the oldest; false when it stays. The latest stays, whatever it holds.
bool Messages::forgetIf(bool tooMany, const std::list<Message> &messages) {
  if (messages.size() < 2) return false;
  if (!tooMany && messages.front().seen >= clock_ - kForgetAfter) return false;
  erase(messages.front().queueId);
  ++forgotten_;
  return true;
}

void Messages::setMessageId(const MessageLine &line, std::string_view text) {
  const Message *const known = find(line.queueId);
  if (known != nullptr && known->active) erase(line.queueId);  // a new message
  Message &message = findOrAdd(line.queueId);
  if (!message.messageId.empty()) return;  // a second header
  if (text.size() >= 2 && text.front() == '<' && text.back() == '>')
    text = text.substr(1, text.size() - 2);
  message.messageId = cleanText(text, kMessageIdLimit, kNoQuoteLimit);
  bytes_ += message.messageId.size();
  forgetOldest();
}

bool Messages::takeSender(const MessageLine &line, std::vector<Delivery> *deliveries) {
  SenderText sender;
  if (!parseSender(line.text, &sender)) return false;
  Message &message = findOrAdd(line.queueId);
  bytes_ -= message.from.size();
  message.from = cleanText(sender.from, kAddressLimit, kNoQuoteLimit);
  bytes_ += message.from.size();
  if (!sender.expired) {
    message.size = sender.size;
    enqueue(&message);
    return true;
  }
  for (const std::string &recipient : message.deferred)
    deliveries->push_back(deliveryOf(line, message, recipient, STATUS_BOUNCE));
  while (!message.deferred.empty()) cross(&message, *message.deferred.begin());
  return true;
}

bool Messages::takeRecipient(const MessageLine &line, std::vector<Delivery> *deliveries) {
  RecipientText text;
  if (!parseRecipient(line.text, &text)) return false;
  static const Message unknown;
  Message *const known = find(line.queueId);
  std::string to = cleanText(text.to, kAddressLimit, kNoQuoteLimit);
  const std::optional<MailStatus> status = outcome(line.service, text);
  if (status == STATUS_RESENT)
    remember(&findOrAdd(line.queueId), to);
  else if (known != nullptr)
    cross(known, to);
  if (status)
    deliveries->push_back(
        deliveryOf(line, known == nullptr ? unknown : *known, std::move(to), *status));
  return true;
}

// A single message that needs all the room is not remembered any further.
void Messages::remember(Message *message, std::string_view recipient) {
  enqueue(message);
  if (bytes_ <= kByteLimit && message->deferred.emplace(recipient).second)
    bytes_ += kNodeBytes + recipient.size();
  forgetOldest();
}

void Messages::cross(Message *message, std::string_view recipient) {
  const auto found = message->deferred.find(recipient);
  if (found == message->deferred.end()) return;
  bytes_ -= kNodeBytes + found->size();
  message->deferred.erase(found);
}
