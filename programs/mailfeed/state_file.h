// What the feed must know after a restart, in one file: where it stands in the log, and
// the messages that were in the queue there.

#ifndef POSTWELL_MAILFEED_STATE_FILE_H_
#define POSTWELL_MAILFEED_STATE_FILE_H_

#include <string>
#include <string_view>

#include "log_follower.h"
#include "log_reader.h"

// The text of the file. The reader is as after the line before the position.
std::string stateText(const Position &position, const LogReader &reader);

// Reads such a text into a new reader. False when it is damaged; both are unusable then.
bool parseState(std::string_view text, Position *position, LogReader *reader);

// Puts a file with the text in the old one's place in one step; readers see the one or
// the other. Synced, it also survives a power failure. "" or what went wrong.
std::string replaceFile(const std::string &path, const std::string &text, mode_t mode,
                        bool sync);

// The whole file; false, with errno set, when it cannot be read.
bool readWhole(const std::string &path, std::string *text);

#endif  // POSTWELL_MAILFEED_STATE_FILE_H_
