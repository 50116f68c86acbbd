// Anything at all as a user's .forward and .vacation.msg: what is read must be what a
// plain reading of the bytes gives, and what is saved must be read back.
//
// The message follows the forward file after a line "="; without one both are the input.

#include <personal.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

const std::string kHome = "/var/services/homes/alice";
const std::string kMark = "/bin/vacation", kSubject = "Subject:", kBlanks = " \t\r\n\v\f";

[[noreturn]] void fail(const char *what) {
  fprintf(stderr, "personal_fuzz: %s\n", what);
  abort();
}

void write(const std::string &name, const std::string &text) {
  std::ofstream out(kHome + name, std::ios::binary);
  if (!(out << text).flush()) fail("no home can be made (run me by script/fuzz)");
}

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
std::vector<std::string> linesOf(const std::string &text) {
  std::vector<std::string> lines;
  for (size_t at = 0, end; at < text.size(); at = end + 1) {
    end = std::min(text.find('\n', at), text.size());
    const std::string whole = text.substr(at, end - at);
    const std::string line = whole.substr(0, whole.find('\0'));
    const size_t first = line.find_first_not_of(kBlanks);
    if (first == std::string::npos || line[first] == '#') continue;
    lines.push_back(line.substr(first, line.find_last_not_of(kBlanks) + 1 - first));
  }
  return lines;
}

State plainState(const std::string &forward, const std::string &message) {
  State state;
  state.reply = holds(forward, kMark);
  std::vector<std::string> lines = linesOf(forward);
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
  const std::vector<std::string> texts = linesOf(message);
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
  const std::string text(reinterpret_cast<const char *>(data), size);
  const size_t middle = text.find("\n=\n");
  const std::string forward =
      middle == std::string::npos ? text : text.substr(0, middle + 1);
  const std::string message =
      middle == std::string::npos ? text : text.substr(middle + 3);
  std::filesystem::create_directories(kHome);
  write("/.forward", forward);
  write("/.vacation.msg", message);

  Personal personal("alice");
  State expected = stateOf(personal);
  if (!(expected == plainState(forward, message))) fail("what is read differs");
  if (personal.save() != 0) fail("the files cannot be written");
  if (!expected.reply) expected.subject = expected.message = "";  // is not saved
  if (!(stateOf(Personal("alice")) == expected)) fail("what is saved is not read back");
  return 0;
}
