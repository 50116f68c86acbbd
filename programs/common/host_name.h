// Names and addresses of hosts, by their form alone; nothing is looked up.

#ifndef POSTWELL_PROGRAMS_HOST_NAME_H_
#define POSTWELL_PROGRAMS_HOST_NAME_H_

#include <string>

// Whether `name` is a host or domain name by RFC 1123: labels of 1 to 63 letters,
// digits and inner hyphens, at most 253 characters, and a last label that is not
// a number (it would be a broken address). No dot at the end.
bool isHostName(const std::string &name);

// Whether `text` is an IPv4 or IPv6 address, without brackets or scope.
bool isAddress(const std::string &text);

#endif  // POSTWELL_PROGRAMS_HOST_NAME_H_
