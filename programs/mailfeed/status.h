// What "mailfeed --status" tells: written by the feed, read by another process.

#ifndef POSTWELL_MAILFEED_STATUS_H_
#define POSTWELL_MAILFEED_STATUS_H_

#include <string>
#include <string_view>

#include "log_reader.h"

struct Status {
  std::string log;
  std::string_view lastLine;
  const LogReader *reader;
  size_t waiting;  // records that the collector has not taken yet
  bool collectorAway;
};

// The files that lie beside the state.
std::string statusOf(const std::string &state);
std::string lockOf(const std::string &state);

// The status as the feed leaves it for others.
std::string statusText(const Status &status);

// Prints what the feed of this state has left, as JSON or for the eye, and whether it is
// running. "" or why it cannot.
std::string printStatus(const std::string &state, bool json);

#endif  // POSTWELL_MAILFEED_STATUS_H_
