// What the feed has to tell the administrator goes to the system log; in the foreground
// to standard error as well.

#ifndef POSTWELL_MAILFEED_SAY_H_
#define POSTWELL_MAILFEED_SAY_H_

#include <string>

void openSystemLog(bool alsoStderr);

// One line at a priority of syslog(3). May hold any bytes.
void say(int priority, const std::string &text);

// The text, and why the last system call failed.
std::string because(const std::string &text, int error);

#endif  // POSTWELL_MAILFEED_SAY_H_
