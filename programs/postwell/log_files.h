// The mail log's files, opened to be read: none is made by looking at it.

#ifndef POSTWELL_PROGRAMS_LOG_FILES_H_
#define POSTWELL_PROGRAMS_LOG_FILES_H_

#include <maillog.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "command.h"

inline constexpr char kLogFolder[] = "/var/packages/Postwell/target/etc/maillog/";
inline constexpr char kLiveLog[] = "maillog.db";

// Something is wrong with one log; others may be sound.
class BadLog : public Failure {
 public:
  explicit BadLog(const std::string &text) : Failure(kFailed, text) {}
};

// A file's descriptor. It tells afterwards what became of the file, and is closed when
// SQLite is done with it: closing it before would drop SQLite's locks.
class FileWatch {
 public:
  explicit FileWatch(const std::string &path);
  ~FileWatch();
  FileWatch(const FileWatch &) = delete;
  FileWatch &operator=(const FileWatch &) = delete;

  int error() const { return error_; }       // why it is not open, as errno tells
  bool isAt(const std::string &path) const;  // whether it is the file of this name
  bool isGone() const;                       // it was removed, not just renamed

 private:
  int fd_;
  int error_;
};

// One log with the statistics.
class LogFile {
 public:
  // Null when there is no such log; throws BadLog when it cannot be opened.
  static std::unique_ptr<LogFile> open(const std::string &name);

  MailLog &log() { return *log_; }
  const std::string &name() const { return name_; }
  const FileWatch &file() const { return file_; }

  // Says so when the library has met damage and made a file anew.
  void tellDamage() const;

 private:
  explicit LogFile(const std::string &name);

  std::string name_;
  FileWatch file_, statistics_;
  std::optional<MailLog> log_;  // when both files are there
};

// The names of the saved logs in the order of time.
std::vector<std::string> savedLogs();

#endif  // POSTWELL_PROGRAMS_LOG_FILES_H_
