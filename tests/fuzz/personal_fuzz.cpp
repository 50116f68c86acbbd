// Anything at all as a user's .forward and .vacation.msg: what is read must be what a
// plain reading of the bytes gives, and what is saved must be read back.
//
// The message follows the forward file after a line "="; without one both are the input.

#include <personal.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "fuzz.h"

namespace {

const std::string kHome = "/var/services/homes/alice";
const std::string kMark = "/bin/vacation", kSubject = "Subject:";

struct State {
  bool forward = false, copy = false, reply = false;
  std::string address, subject, message;

  bool operator==(const State &other) const {
    return forward == other.forward && copy == other.copy && reply == other.reply &&
           address == other.address && subject == other.subject &&
           message == other.message;
  }
};

// ---- the plain reading

bool begins(const std::string &text, const std::string &start) {
  return text.compare(0, start.size(), start) == 0;
}

bool holds(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos;
}

// The lines that say something, as they are told apart: up to a NUL, without blanks.
std::vector<std::string> sayingLines(const std::string &text) {
  std::vector<std::string> lines;
  for (const std::string &whole : linesOf(text)) {
    const std::string line = trimmed(whole.substr(0, whole.find('\0')));
    if (!line.empty() && line[0] != '#') lines.push_back(line);
  }
  return lines;
}

State plainState(const std::string &forward, const std::string &message) {
  State state;
  state.reply = holds(forward, kMark);
  std::vector<std::string> lines = sayingLines(forward);
  lines.erase(std::remove_if(lines.begin(), lines.end(),
                             [](const std::string &line) { return holds(line, kMark); }),
              lines.end());
  const auto address = std::find_if(
      lines.begin(), lines.end(), [](const auto &line) { return line.front() != '\\'; });
  if (address != lines.end()) {
    state.forward = true;
    state.copy = address != lines.begin();
    state.address = *address;
  }
  const std::vector<std::string> texts = sayingLines(message);
  auto text = std::find_if(texts.begin(), texts.end(),
                           [](const auto &line) { return begins(line, kSubject); });
  if (text == texts.end()) return state;
  state.subject = text->substr(kSubject.size());
  while (++text != texts.end()) state.message += *text + "\r\n";
  return state;
}

// ---- the library

State stateOf(const Personal &personal) {
  if (!personal.isValid()) fail("a file is not read");
  return {personal.isEnabledForward(), personal.isKeepCopy(),
          personal.isEnabledReply(),   personal.getForwardAddr(),
          personal.getReplySubject(),  personal.getReplyMessage()};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::vector<std::string> parts = partsOf(data, size);
  const std::string &forward = parts.front(), &message = parts.back();
  std::filesystem::create_directories(kHome);
  writeWhole(kHome + "/.forward", forward);
  writeWhole(kHome + "/.vacation.msg", message);

  Personal personal("alice");
  State expected = stateOf(personal);
  if (!(expected == plainState(forward, message))) fail("what is read differs");
  if (personal.save() != 0) fail("the files cannot be written");
  if (!expected.reply) expected.subject = expected.message = "";  // is not saved
  if (!(stateOf(Personal("alice")) == expected)) fail("what is saved is not read back");
  return 0;
}
