// Scanned by hand, from left to right: a log has millions of lines.
//
// What a stranger can put into a line stands either between <> or at its end, in
// parentheses. An address may hold anything between double quotes, ">, status=sent" for
// example, so a quoted part is passed over as a whole.

#include "delivery_line.h"

#include <algorithm>

namespace {

constexpr size_t kShortestId = 6;
constexpr size_t kLongestId = 20;

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Without branches: letters and digits alternate in an id, and no processor can guess
// how.
bool isIdCharacter(char c) {
  const unsigned byte = static_cast<unsigned char>(c);
  return ((byte - '0' < 10U) | ((byte | 0x20U) - 'a' < 26U)) != 0;
}

// Takes "postfix/relay/smtp[123]: " off the front; the service is the last part.
bool takeService(std::string_view *text, std::string_view *service) {
  size_t start = 0, end = 0;
  for (; end < text->size() && (*text)[end] != '['; ++end) {
    if ((*text)[end] == ' ') return false;
    if ((*text)[end] == '/') start = end + 1;
  }
  *service = text->substr(start, end - start);
  for (++end; end < text->size() && isDigit((*text)[end]);) ++end;
  text->remove_prefix(std::min(end, text->size()));
  return takeStart(text, "]: ");
}

bool takeQueueId(std::string_view *text, std::string_view *id) {
  size_t length = 0;
  while (length < text->size() && isIdCharacter((*text)[length])) ++length;
  *id = text->substr(0, length);
  text->remove_prefix(length);
  return length >= kShortestId && length <= kLongestId && takeStart(text, ": ");
}

// Takes what stands before `end` off the front, and `end` itself.
bool takeUntil(std::string_view *text, char end, std::string_view *part) {
  const size_t at = text->find(end);
  if (at == std::string_view::npos) return false;
  *part = text->substr(0, at);
  text->remove_prefix(at + 1);
  return true;
}

// Where the quoted part ends that begins at 0; 0 when it never does.
size_t quotedLength(std::string_view text) {
  for (size_t i = 1; i < text.size(); ++i) {
    if (text[i] == '\\')
      ++i;
    else if (text[i] == '"')
      return i + 1;
  }
  return 0;
}

// Takes "ADDRESS>, " off the front.
bool takeAddress(std::string_view *text, std::string_view *address) {
  const size_t quoted = !text->empty() && text->front() == '"' ? quotedLength(*text) : 0;
  const size_t end = text->find(">, ", quoted);
  if (end == std::string_view::npos) return false;
  *address = text->substr(0, end);
  text->remove_prefix(end + 3);
  return true;
}

bool takeNumber(std::string_view *text, int64_t *value) {
  size_t length = 0;
  for (*value = 0; length < text->size() && length < 18; ++length) {
    if (!isDigit((*text)[length])) break;
    *value = *value * 10 + ((*text)[length] - '0');
  }
  text->remove_prefix(length);
  return length > 0;
}

// Takes "status=" off the front, and the "delay=0.1, " and the like before it.
bool takeToStatus(std::string_view *text) {
  while (!takeStart(text, "status=")) {
    std::string_view pair;
    if (!takeUntil(text, ',', &pair) || !takeStart(text, " ")) return false;
  }
  return true;
}

}  // namespace

bool splitQueueLine(std::string_view afterStamp, QueueLine *line) {
  std::string_view host;
  if (!takeStart(&afterStamp, " ") || !takeUntil(&afterStamp, ' ', &host) ||
      !takeService(&afterStamp, &line->service) ||
      !takeQueueId(&afterStamp, &line->queueId))
    return false;
  line->text = afterStamp;
  return true;
}

bool parseSender(std::string_view text, SenderText *sender) {
  if (!takeStart(&text, "from=<") || !takeAddress(&text, &sender->from)) return false;
  sender->expired =
      takeStart(&text, "status=expired") || takeStart(&text, "status=force-expired");
  return sender->expired ||
         (takeStart(&text, "size=") && takeNumber(&text, &sender->size));
}

bool parseRecipient(std::string_view text, RecipientText *recipient) {
  std::string_view original;
  if (!takeStart(&text, "to=<") || !takeAddress(&text, &recipient->to)) return false;
  if (takeStart(&text, "orig_to=<") && !takeAddress(&text, &original)) return false;
  if (!takeStart(&text, "relay=") || !takeUntil(&text, ',', &recipient->relay) ||
      !takeStart(&text, " ") || !takeToStatus(&text))
    return false;
  const size_t end = text.find(' ');
  recipient->status = text.substr(0, end);
  recipient->reason = end == std::string_view::npos ? "" : text.substr(end + 1);
  if (takeStart(&recipient->reason, "(") && !recipient->reason.empty() &&
      recipient->reason.back() == ')')
    recipient->reason.remove_suffix(1);
  return !recipient->status.empty();
}
