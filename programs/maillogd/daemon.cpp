// One MailLogger in a loop, and what a daemon needs around it.
//
// A collector takes the socket from whoever has it, so a lock keeps a second daemon from
// starting. The lock is taken before anything else and inherited through the forks; who
// holds it knows that a pid file which is there names a process of the past, possibly
// somebody else's by now.
//
// In the background three processes take part: the first waits for word from the last
// that senders can connect; the one between is left behind by ProcessEnvInit(). The
// collector is made in the last one, since SQLite's connections do not survive a fork.

#include "daemon.h"

#include <fcntl.h>
#include <maillogger.h>
#include <malloc.h>
#include <postwell.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstring>
#include <iostream>

namespace {

constexpr char kSocket[] = "/var/run/maillog.sock";
constexpr char kLock[] = "/var/run/maillog.sock.lock";
constexpr char kMailLog[] = "/var/packages/Postwell/target/etc/maillog/maillog.db";

int complain(const std::string &what) {
  std::cerr << "maillogd: " << what << std::endl;
  return 1;
}

int complainErrno(const std::string &what) {
  return complain(what + ": " + strerror(errno));
}

// ---- stopping

constexpr unsigned int kPatienceSeconds = 2;
constexpr rlim_t kMostDescriptors = 1 << 20;  // may be open; all are cut off at the end
volatile sig_atomic_t stopping = 0;
volatile sig_atomic_t descriptors = FD_SETSIZE;  // no open one is as high

// The alarm comes back here until the loop has noticed: a signal that arrives just
// before a wait begins does not end the wait. A sender who goes on and on is cut off
// then; what is no socket does not mind.
extern "C" void stop(int signal) {
  stopping = 1;
  if (signal == SIGALRM)
    for (int fd = STDERR_FILENO + 1; fd < descriptors; ++fd) shutdown(fd, SHUT_RD);
  alarm(kPatienceSeconds);
}

// A sender who is at it may finish; one who is silent when the alarm comes is left.
void catchSignals() {
  struct sigaction action {};
  action.sa_handler = stop;
  action.sa_flags = SA_RESTART;
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaction(signal, &action, nullptr);
  action.sa_flags = 0;
  sigaction(SIGALRM, &action, nullptr);
}

// ---- the surroundings

class Descriptor {
 public:
  explicit Descriptor(int fd) : _fd(fd) {}
  ~Descriptor() {
    if (_fd >= 0) close(_fd);
  }
  Descriptor(const Descriptor &) = delete;
  Descriptor &operator=(const Descriptor &) = delete;
  int get() const { return _fd; }

 private:
  int _fd;
};

class PidFile {
 public:
  explicit PidFile(const std::string &path) : _path(path) {}
  ~PidFile() { unlink(_path.c_str()); }  // one that is gone is as good
  PidFile(const PidFile &) = delete;
  PidFile &operator=(const PidFile &) = delete;

 private:
  const std::string &_path;
};

// Each log that is made keeps a connection open, so that descriptors run out some day;
// as late as possible.
void allowManyFiles() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, kMostDescriptors);
  if (setrlimit(RLIMIT_NOFILE, &limit) == 0)  // refused, it stays as it was
    descriptors = static_cast<sig_atomic_t>(limit.rlim_cur);
}

// Until here nobody else could connect: the umask saw to it.
bool openToGroup(const std::optional<gid_t> &group) {
  if (!group) return chmod(kSocket, 0600) == 0;
  return chown(kSocket, static_cast<uid_t>(-1), *group) == 0 && chmod(kSocket, 0660) == 0;
}

// Standard error served for complaints until here.
bool leaveTerminal() {
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  bool left = null >= 0;
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    left = left && dup2(null, fd) == fd;
  if (null > STDERR_FILENO) close(null);
  return left;
}

// ---- the daemon

// Memory that a burst of records needed serves the next one, since the system takes
// longer to hand out a page than the collector to fill it; it is given back when there
// was nobody for a whole pass.
void collectUntilStopped(MailLogger &logger) {
  using std::chrono::steady_clock;
  constexpr std::chrono::seconds kIdle(3);
  mallopt(M_TRIM_THRESHOLD, INT_MAX);
  while (!stopping) {
    const auto begin = steady_clock::now();
    logger.run();
    if (steady_clock::now() - begin >= kIdle) malloc_trim(0);
  }
}

int collect(MailLogger &logger) {
  collectUntilStopped(logger);
  logger.error();  // what has failed before is in the log, and may work now
  logger.flushLogToDB();
  if (logger.error() == 0) return 0;
  return complain("not all entries could be stored; the system log tells why");
}

// `ready` gets a byte when senders can connect.
int serve(const DaemonOptions &options, int ready) {
  catchSignals();
  unlink(options.pidFile.c_str());  // see above: its process must not be ended
  const std::string folder = options.pidFile.substr(0, options.pidFile.rfind('/'));
  mkdir(folder.c_str(), 0755);  // after a start of the machine it is missing
  if (ProcessEnvInit(options.pidFile.c_str(), !options.background, true) != 0)
    return complainErrno("cannot become a daemon with pid file " + options.pidFile);
  const PidFile pidFile(options.pidFile);
  allowManyFiles();
  umask(077);  // who writes to whom is nobody else's business

  MailLogger logger(options.cacheTime, options.rotateThreshold);
  if (logger.error() != 0)
    return complain("the collector cannot start; the system log tells why");
  // a collector that could not count its rows and has removed the damaged file says 0
  if (access(kMailLog, F_OK) != 0)
    return complain("the mail log was damaged and has been removed; start again");
  if (!openToGroup(options.group)) return complainErrno(kSocket);
  if (options.background && (!leaveTerminal() || write(ready, "", 1) != 1)) return 1;
  return collect(logger);
}

int serveInBackground(const DaemonOptions &options) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return complainErrno("pipe");
  const Descriptor word(ends[0]);
  const pid_t child = fork();
  if (child < 0) return complainErrno("fork");
  // the other end stays open there to the very end, when the lock is free again
  if (child == 0) return serve(options, ends[1]);
  close(ends[1]);  // the read ends with the last one who could write
  char byte;
  return read(word.get(), &byte, 1) == 1 ? 0 : 1;
}

}  // namespace

int runDaemon(const DaemonOptions &options) {
  const Descriptor lock(open(kLock, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (lock.get() < 0) return complainErrno(kLock);
  if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) return complainErrno(kLock);
    return complain("another maillogd is running");
  }
  return options.background ? serveInBackground(options) : serve(options, -1);
}
