// A line counts as not understood when it names a recipient and a status, as only
// deliveries do, but its frame or its text has another form than Postfix gives it.

#include "log_reader.h"

namespace {

constexpr size_t kShownLine = 1000;

bool looksLikeDelivery(std::string_view line) {
  constexpr auto npos = std::string_view::npos;
  if (line.empty() || line.back() != ')') return false;  // saves the search in most
  const size_t at = line.find(": to=<");
  return at != npos && line.find(", status=", at) != npos;
}

}  // namespace

void LogReader::take(std::string_view line, std::vector<Delivery> *deliveries) {
  ++counters_.lines;
  if (understand(line, deliveries)) return;
  ++counters_.notUnderstood;
  counters_.lastNotUnderstood = line.substr(0, kShownLine);
}

bool LogReader::understand(std::string_view line, std::vector<Delivery> *deliveries) {
  MessageLine parts;
  const size_t stamp = stamps_.read(line, &parts.time);
  if (stamp == 0) return !looksLikeDelivery(line);
  counters_.lastTime = parts.time;
  if (!splitQueueLine(line.substr(stamp), &parts)) return !looksLikeDelivery(line);
  return messages_.take(parts, deliveries);
}
