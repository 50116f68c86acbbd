// The facility is not "mail": where the system log writes Postfix's log, the feed would
// read what it says itself.

#include "say.h"

#include <syslog.h>

#include <system_error>

#include "common/text.h"

void openSystemLog(bool alsoStderr) {
  openlog("mailfeed", LOG_PID | (alsoStderr ? LOG_PERROR : 0), LOG_DAEMON);
}

void say(int priority, const std::string &text) {
  syslog(priority, "%s", printable(text).c_str());
}

std::string because(const std::string &text, int error) {
  return text + ": " + std::generic_category().message(error);
}
