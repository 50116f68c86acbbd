// The library makes a log that is missing, and makes a damaged one anew. A command that
// only looks must not do the first and has to tell of the second, so each file is opened
// here as well: before the library does, and until it has finished.

#include "log_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <regex>

#include "command.h"

namespace {

namespace fs = std::filesystem;

const std::string kStatistics = "/var/packages/Postwell/etc/log_statistic.db";

std::string pathOf(const std::string &name) { return kLogFolder + name; }

std::string cannotOpen(const std::string &path, const FileWatch &file) {
  return "cannot open " + path + ": " + strerror(file.error()) + ".\nRun as root.";
}

}  // namespace

// ---- FileWatch

FileWatch::FileWatch(const std::string &path)
    : fd_(::open(path.c_str(), O_RDWR | O_CLOEXEC)), error_(fd_ < 0 ? errno : 0) {}

FileWatch::~FileWatch() {
  if (fd_ >= 0) close(fd_);
}

bool FileWatch::isAt(const std::string &path) const {
  struct stat mine {
  }, there{};
  return fstat(fd_, &mine) == 0 && stat(path.c_str(), &there) == 0 &&
         mine.st_dev == there.st_dev && mine.st_ino == there.st_ino;
}

bool FileWatch::isGone() const {
  struct stat mine {};
  return fstat(fd_, &mine) == 0 && mine.st_nlink == 0;
}

// ---- LogFile

LogFile::LogFile(const std::string &name)
    : name_(name), file_(pathOf(name)), statistics_(kStatistics) {
  if (file_.error() == ENOENT) return;
  if (file_.error() != 0) throw BadLog(cannotOpen(pathOf(name), file_));
  if (statistics_.error() == ENOENT)
    throw Failure(kFailed, kStatistics +
                               " is missing, without which no log\n"
                               "can be read; maillogd makes it when it starts.");
  if (statistics_.error() != 0)
    throw Failure(kFailed, cannotOpen(kStatistics, statistics_));
  log_.emplace(pathOf(name).c_str());
  if (log_->error() != 0)
    throw BadLog("cannot open " + pathOf(name) + "; the system log tells why.");
}

std::unique_ptr<LogFile> LogFile::open(const std::string &name) {
  constexpr int kMostTries = 10;
  for (int tries = 0; tries < kMostTries; tries++) {
    std::unique_ptr<LogFile> file(new LogFile(name));
    if (file->file_.error() == ENOENT) return nullptr;
    // else it was moved aside meanwhile, and the library may have opened the next one
    if (file->file_.isAt(pathOf(name))) return file;
  }
  throw BadLog(pathOf(name) + " is being replaced; try again.");
}

void LogFile::tellDamage() const {
  for (const auto &[watch, path] :
       {std::pair(&file_, pathOf(name_)), std::pair(&statistics_, kStatistics)})
    if (watch->isGone())
      tell(path + " was damaged and has been\nmade anew; what it held is lost.");
}

// ---- the folder

std::vector<std::string> savedLogs() {
  static const std::regex kForm("maillog_[0-9]{8}(_1)*\\.db");
  std::vector<std::string> names;
  std::error_code error;
  const fs::directory_iterator folder(kLogFolder, error);
  if (error && error != std::errc::no_such_file_or_directory)  // then there is no log
    throw Failure(kFailed, std::string("cannot open ") + kLogFolder + ": " +
                               error.message() + ".\nRun as root.");
  for (const fs::directory_entry &entry : folder) {
    const std::string name = entry.path().filename();
    if (std::regex_match(name, kForm)) names.push_back(name);
  }
  std::sort(names.begin(), names.end());  // "." comes before "_"
  return names;
}
