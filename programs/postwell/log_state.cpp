// Why nothing new comes in. A daemon runs when the process that its pid file names has
// the daemon's name: the number alone may be another program's by now.

#include "log_state.h"

#include <fstream>
#include <string>

#include "command.h"

namespace {

bool isRunning(const std::string &pidFile, const std::string &program) {
  std::ifstream file(pidFile);
  long pid = 0;
  if (!(file >> pid) || pid <= 0) return false;
  std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
  std::string name;
  return std::getline(comm, name) && name == program;
}

}  // namespace

bool tellDaemons() {
  const bool stores = isRunning("/run/postwell/maillogd.pid", "maillogd");
  const bool feeds = isRunning("/run/postwell/mailfeed/mailfeed.pid", "mailfeed");
  if (!stores) tell("maillogd is not running, so nothing is stored.");
  if (!feeds) tell("mailfeed is not running, so nothing new comes in.");
  return !stores || !feeds;
}
