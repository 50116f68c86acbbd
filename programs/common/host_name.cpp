// The forms of host names and addresses that Postfix takes as a next hop.

#include "common/host_name.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

namespace {

constexpr size_t kLongestName = 253;
constexpr size_t kLongestLabel = 63;

bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool isLabelCharacter(char c) {
  return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-';
}

bool isLabel(const std::string &label) {
  return !label.empty() && label.size() <= kLongestLabel && label.front() != '-' &&
         label.back() != '-' && std::all_of(label.begin(), label.end(), isLabelCharacter);
}

}  // namespace

bool isHostName(const std::string &name) {
  if (name.size() > kLongestName) return false;
  size_t start = 0;
  for (size_t dot = name.find('.'); dot != std::string::npos;
       dot = name.find('.', start)) {
    if (!isLabel(name.substr(start, dot - start))) return false;
    start = dot + 1;
  }
  const std::string last = name.substr(start);
  return isLabel(last) && !std::all_of(last.begin(), last.end(), isDigit);
}

bool isAddress(const std::string &text) {
  unsigned char address[sizeof(in6_addr)];
  // inet_pton() stops at a NUL, which would let anything follow it.
  if (std::strlen(text.c_str()) != text.size()) return false;
  return inet_pton(AF_INET, text.c_str(), address) == 1 ||
         inet_pton(AF_INET6, text.c_str(), address) == 1;
}
