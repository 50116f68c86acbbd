// A statement that is cut short makes the collector throw its whole file away, so the
// bounds here are what keeps a stranger's mail from doing that.
//
// The addresses and the queue id may always fill their fields, even if they are nothing
// but quotes; the message id takes what they leave, which is never less than 420 bytes.

#include "record.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr size_t kStatementLimit = 2047;
constexpr char kEmptyStatement[] =
    "INSERT INTO 'mail_log_table' VALUES('', '', '', '', '', '', '')";
constexpr size_t kNumbers = 3 * std::string_view("-2147483648").size();
constexpr size_t kTextLimit =
    kStatementLimit - std::string_view(kEmptyStatement).size() - kNumbers;
static_assert(kTextLimit >= 3 * 2 * 255 + 420, "no field can be left without room");

unsigned byteAt(std::string_view text, size_t at) {
  return static_cast<unsigned char>(text[at]);
}

// Bytes of the character that the text begins with; 0 when it is none, or a control.
size_t characterLength(std::string_view text) {
  const unsigned first = byteAt(text, 0);
  if (first < 0x80) return first >= 0x20 && first != 0x7f ? 1 : 0;
  const size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4 || text.size() < length) return 0;
  for (size_t i = 1; i < length; ++i)
    if ((byteAt(text, i) & 0xc0) != 0x80) return 0;
  const unsigned second = byteAt(text, 1);
  const bool tooLong =
      (first == 0xe0 && second < 0xa0) || (first == 0xf0 && second < 0x90);
  const bool surrogate = first == 0xed && second > 0x9f;
  const bool beyondLast = first == 0xf4 && second > 0x8f;
  const bool control = first == 0xc2 && second < 0xa0;
  return tooLong || surrogate || beyondLast || control ? 0 : length;
}

bool isPlain(char c) { return c >= 0x20 && c < 0x7f && c != '\''; }

size_t quotedLength(const std::string &text) {
  return text.size() + static_cast<size_t>(std::count(text.begin(), text.end(), '\''));
}

int32_t bounded(int64_t value) {
  return static_cast<int32_t>(std::clamp<int64_t>(value, INT32_MIN, INT32_MAX));
}

// Fills the field, which is zeroed, from what is left of the statement's room.
template <size_t Size>
void putText(const std::string &text, char (&field)[Size], size_t *room) {
  const std::string cleaned = cleanText(text, Size - 1, *room);
  *room -= quotedLength(cleaned);
  memcpy(field, cleaned.data(), cleaned.size());
}

}  // namespace

std::string cleanText(std::string_view text, size_t limit, size_t quotedLimit) {
  if (text.size() <= std::min(limit, quotedLimit) &&
      std::all_of(text.begin(), text.end(), isPlain))
    return std::string(text);
  std::string cleaned;
  for (size_t quotes = 0; !text.empty();) {
    const size_t length = characterLength(text);
    const std::string_view shown = length == 0 ? "?" : text.substr(0, length);
    if (shown == "'") ++quotes;
    const size_t size = cleaned.size() + shown.size();
    if (size > limit || size + quotes > quotedLimit) break;
    cleaned += shown;
    text.remove_prefix(std::max<size_t>(length, 1));
  }
  return cleaned;
}

LogSocket makeRecord(const Delivery &delivery) {
  LogSocket record = {};
  size_t room = kTextLimit;
  putText(delivery.queueId, record.szQueueID, &room);
  putText(delivery.from, record.szMailFrom, &room);
  putText(delivery.to, record.szMailTo, &room);
  putText(delivery.messageId, record.szMessageID, &room);
  record.log_time = bounded(delivery.time);
  record.mail_size = bounded(delivery.size);
  record.status = delivery.status;
  return record;
}
