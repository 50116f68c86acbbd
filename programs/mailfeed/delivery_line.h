// The parts of Postfix's log lines. What is returned points into the line.

#ifndef POSTWELL_MAILFEED_DELIVERY_LINE_H_
#define POSTWELL_MAILFEED_DELIVERY_LINE_H_

#include <cstdint>
#include <string_view>

// "HOST postfix/smtp[123]: 4jWjz154XQz1cQJy: TEXT", what follows the time stamp.
struct QueueLine {
  std::string_view service;  // the program: "smtp", also of "postfix/relay/smtp"
  std::string_view queueId;
  std::string_view text;
};

// False when the line is of another form: from another program, or about no message.
bool splitQueueLine(std::string_view afterStamp, QueueLine *line);

// "from=<SENDER>, size=450, nrcpt=2 (queue active)", and
// "from=<SENDER>, status=expired, returned to sender".
struct SenderText {
  std::string_view from;
  int64_t size = 0;  // bytes
  bool expired = false;
};
bool parseSender(std::string_view text, SenderText *sender);

// "to=<RECIPIENT>, …relay=HOST[ADDRESS]:25, …status=sent (250 Ok)".
struct RecipientText {
  std::string_view to;
  std::string_view relay;
  std::string_view status;
  std::string_view reason;  // what stands in the parentheses
};
bool parseRecipient(std::string_view text, RecipientText *recipient);

// Inline, so that comparing with a literal costs no call.
inline bool startsWith(std::string_view text, std::string_view start) {
  return text.size() >= start.size() && text.compare(0, start.size(), start) == 0;
}

// Takes `start` off the front of the text, if it begins with it.
inline bool takeStart(std::string_view *text, std::string_view start) {
  if (!startsWith(*text, start)) return false;
  text->remove_prefix(start.size());
  return true;
}

#endif  // POSTWELL_MAILFEED_DELIVERY_LINE_H_
