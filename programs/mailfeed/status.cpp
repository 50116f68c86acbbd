// The log's lines come from strangers: nothing of them reaches a terminal unescaped, nor
// breaks the JSON.

#include "status.h"

#include <fcntl.h>

#include <cerrno>
#include <ctime>
#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>

#include "common/text.h"
#include "descriptor.h"
#include "say.h"
#include "state_file.h"

namespace {

using Json = nlohmann::ordered_json;

std::string dump(const Json &values) {
  constexpr bool kAsciiOnly = true;
  return values.dump(2, ' ', kAsciiOnly, Json::error_handler_t::replace) + '\n';
}

// The feed holds its lock as long as it lives.
Json isRunning(const std::string &state) {
  const Descriptor lock(open(lockOf(state).c_str(), O_RDONLY | O_CLOEXEC));
  if (!lock.isOpen()) return errno == ENOENT ? Json(false) : Json();
  struct flock held = {};
  held.l_type = F_RDLCK;
  if (fcntl(lock.get(), F_OFD_GETLK, &held) != 0) return Json();
  return held.l_type != F_UNLCK;
}

std::string localTime(int64_t seconds) {
  const auto value = static_cast<time_t>(seconds);
  tm broken = {};
  localtime_r(&value, &broken);
  char text[32];
  return std::string(text, strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &broken));
}

std::string forTerminal(const std::string &key, const Json &value) {
  if (value.is_null()) return "unknown";
  if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
  if (key == "last_line_time") {
    const int64_t seconds = value.is_number_integer() ? value.get<int64_t>() : 0;
    return seconds == 0 ? "(none)" : localTime(seconds);
  }
  if (!value.is_string()) return value.dump();
  const auto &text = value.get_ref<const std::string &>();
  return text.empty() ? "(none)" : printable(text);
}

}  // namespace

std::string statusOf(const std::string &state) { return state + ".status"; }
std::string lockOf(const std::string &state) { return state + ".lock"; }

std::string statusText(const Status &status) {
  const Counters &count = status.reader->counters();
  const Messages &messages = status.reader->messages();
  return dump({{"log", status.log},
               {"last_line", status.lastLine},
               {"last_line_time", count.lastTime},
               {"lines", count.lines},
               {"lines_not_understood", count.notUnderstood},
               {"last_not_understood", count.lastNotUnderstood},
               {"records_sent", count.sent},
               {"records_waiting", status.waiting},
               {"collector_away", status.collectorAway},
               {"messages_in_queue", messages.all().size()},
               {"messages_forgotten", messages.forgotten()}});
}

std::string printStatus(const std::string &state, bool json) {
  std::string text;
  if (!readWhole(statusOf(state), &text))
    return errno == ENOENT ? "the feed has not read anything yet"
                           : because("cannot read " + statusOf(state), errno);
  Json values = Json::parse(text, nullptr, false);
  if (!values.is_object()) return statusOf(state) + " is damaged";
  values["running"] = isRunning(state);
  if (json) {
    std::cout << dump(values);
    return "";
  }
  constexpr int kColumn = 22;  // fits the longest key
  for (const auto &[key, value] : values.items())
    std::cout << std::left << std::setw(kColumn) << key << forTerminal(key, value)
              << '\n';
  return "";
}
