// Personal: one user's forwarding and vacation reply, two files in the home directory.
//
// ".forward" is obeyed by the mail system at delivery: a line "\name" keeps a copy, a
// pipe to the package's vacation program answers from ".vacation.msg", and an address
// forwards. Odd, and kept: what is read is not what was written, since blank lines and
// comments of a reply are lost and its lines come back with "\r\n"; a reply has no blank
// line between header and body, which the vacation program makes good; saving removes the
// old files before the new ones are known to be written.

#include "personal.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <new>

#include "internal/line_reader.h"
#include "internal/log.h"
#include "internal/paths.h"
#include "internal/text.h"
#include "internal/text_file.h"
#include "kestcore.h"
#include "kestsdk.h"
#include "smtp.h"

using internal::LineReader;
using internal::TextFile;

namespace {

constexpr char kForward[] = "/.forward";
constexpr char kMessage[] = "/.vacation.msg";
constexpr char kReplied[] = "/.vacation.db";  // the vacation program's own

constexpr char kReplyMark[] = "/bin/vacation";  // on the line that makes replies
constexpr char kFrom[] = "From:";
constexpr char kSubject[] = "Subject:";

// As the SMTP settings' account type.
std::string accountTypeOf(const std::string &user) {
  if (user.find('\\', 1) != std::string::npos) return "win";
  if (user.find('@', 1) != std::string::npos) return "ldap";
  return "local";
}

std::string copyOf(const std::string &text) noexcept try {
  return text;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return "";
}

}  // namespace

Personal::Personal(const std::string &user) noexcept
    : blValid(true), blEnableForward(false), blKeepCopy(false), blEnableReply(false) {
  try {  // a constructor whose whole body were tried would throw on
    strUser = user;
    load();
  } catch (const std::bad_alloc &) {
    LOG_ERROR("Out of memory");
    blValid = false;
  }
}

Personal::~Personal() = default;

// ---- fields

bool Personal::isValid() const noexcept { return blValid; }
bool Personal::isEnabledForward() const noexcept { return blEnableForward; }
bool Personal::isKeepCopy() const noexcept { return blKeepCopy; }
bool Personal::isEnabledReply() const noexcept { return blEnableReply; }

std::string Personal::getErrKey() const noexcept { return copyOf(strErrKey); }
std::string Personal::getUser() const noexcept { return copyOf(strUser); }
std::string Personal::getForwardAddr() const noexcept { return copyOf(strForwardAddr); }
std::string Personal::getReplySubject() const noexcept { return copyOf(strReplySubject); }
std::string Personal::getReplyMessage() const noexcept { return copyOf(strReplyMessage); }

void Personal::setForward(bool enabled) noexcept { blEnableForward = enabled; }
void Personal::setKeepCopy(bool enabled) noexcept { blKeepCopy = enabled; }
void Personal::setReply(bool enabled) noexcept { blEnableReply = enabled; }

void Personal::setForwardAddr(const std::string &address) noexcept {
  ASSIGN_TEXT(strForwardAddr, address);
}

void Personal::setReplySubject(const std::string &subject) noexcept {
  ASSIGN_TEXT(strReplySubject, subject);
}

void Personal::setReplyMessage(const std::string &message) noexcept {
  ASSIGN_TEXT(strReplyMessage, message);
}

// ---- reading

namespace {

constexpr int kWaitForNobody = O_NONBLOCK;  // should the path name a pipe

// The next line that says something, without the white space at its ends; null without
// one.
const char *nextLine(LineReader *reader) {
  while (reader->next())
    if (KLIBCStrTrimSpace(reader->line(), 0) > 0 && *reader->line() != '#')
      return reader->line();
  return nullptr;
}

// The first line that neither keeps a copy nor makes replies; none leaves it empty.
bool readAddress(const std::string &path, std::string *address, bool *keepsCopy) {
  LineReader reader(path.c_str(), kWaitForNobody);
  if (!reader.isFile()) {
    LOG_ERROR("Can not open Forward file.");
    return false;
  }
  while (const char *line = nextLine(&reader)) {
    if (strstr(line, kReplyMark) != nullptr) continue;
    if (*line != '\\') {
      *address = line;
      return true;
    }
    *keepsCopy = true;
  }
  return reader.isAtEnd();
}

// What precedes the subject is dropped, all of it without a subject.
bool readReply(const std::string &path, std::string *subject, std::string *message) {
  LineReader reader(path.c_str(), kWaitForNobody);
  if (!reader.isFile()) {
    LOG_ERROR("Can not open vacation file.");
    return false;
  }
  bool found = false;
  while (const char *line = nextLine(&reader)) {
    if (found) {
      *message += line;
      *message += "\r\n";
    } else if (strncmp(line, kSubject, strlen(kSubject)) == 0) {
      found = true;
      *subject = line + strlen(kSubject);
    }
  }
  return reader.isAtEnd();
}

}  // namespace

void Personal::load() {
  if (strUser.empty()) {
    LOG_ERROR("Bad parameter");
    blValid = false;
    return;
  }
  SMTP smtp;
  smtp.load();  // what cannot be read keeps its default: accounts are local
  if (smtp.getAccountType() != accountTypeOf(strUser)) {
    blValid = false;
    strErrKey = "acc_type_unsupport";
    return;
  }
  if (findHome() && readForward() && readVacation()) return;
  blValid = false;
  strErrKey = "no_user_home";
}

bool Personal::findHome() {
  const std::string type = accountTypeOf(strUser);
  if (type == "local") {
    strHomePath = paths::kHomes + strUser;
    return true;
  }
  char home[4096];
  if (type == "win") {
    if (KESTDomainUserHomePathGet(strUser.c_str(), home, sizeof home) < 0) {
      LOG_ERROR("KESTDomainUserHomePathGet(user[%s]) failed", strUser.c_str());
      return false;
    }
  } else if (KESTLDAPUserHomePathGet(strUser.c_str(), home, sizeof home) < 0) {
    LOG_ERROR("KESTLDAPUserHomePathGet(user[%s]) failed", strUser.c_str());
    return false;
  }
  strHomePath = home;
  return true;
}

bool Personal::readForward() {
  const std::string path = strHomePath + kForward;
  if (KLIBCFileExist(path.c_str()) != 1) return true;
  char found[1024];
  if (KLIBCFileGetLine(path.c_str(), kReplyMark, found, sizeof found, 0) > 0)
    blEnableReply = true;
  bool keepsCopy = false;
  if (!readAddress(path, &strForwardAddr, &keepsCopy)) {
    LOG_ERROR("GetForwardAddress() failed");
    return false;
  }
  blEnableForward = !strForwardAddr.empty();
  // without forwarding the line is the delivery that goes with a reply
  blKeepCopy = blEnableForward && keepsCopy;
  return true;
}

bool Personal::readVacation() {
  const std::string path = strHomePath + kMessage;
  if (KLIBCFileExist(path.c_str()) != 1) return true;
  std::string subject, message;
  if (!readReply(path, &subject, &message)) {
    LOG_ERROR("GetSubjectMsg() failed");
    return false;
  }
  strReplySubject.swap(subject);
  strReplyMessage.swap(message);
  return true;
}

// ---- writing

namespace {

// A write that fails does so at its own line, not at a later one's.
bool writeLine(TextFile *file, const std::string &line) {
  file->print("%s\n", line.c_str());
  return file->flush();
}

bool writeReplyCommand(TextFile *file, const std::string &account) {
  const std::unique_ptr<char, void (*)(char *)> command(
      KLIBCStrGet("\"|%s %s\"", paths::kVacation, account.c_str()), KLIBCStrPut);
  return command != nullptr && writeLine(file, command.get());
}

}  // namespace

int Personal::save() noexcept try {
  const std::string forward = strHomePath + kForward;
  const std::string message = strHomePath + kMessage;
  const std::string replied = strHomePath + kReplied;
  for (const std::string *path : {&forward, &message, &replied})
    if (KLIBCFileExist(path->c_str()) == 1)
      unlink(path->c_str());  // what stays shows when it is written
  if (!blEnableForward && !blEnableReply) return 0;
  if (writeToFWD(forward) < 0) {
    LOG_ERROR("Can not write to Forward file.");
    return -1;
  }
  if (writeToMsg(message) < 0) {
    LOG_ERROR("Can not write to .vacation.msg file.");
    return -1;
  }
  return 0;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

int Personal::writeToFWD(const std::string &path) {
  TextFile file(path.c_str());
  if (!file.isOpen()) {
    LOG_ERROR("Can not open Forward file.");
    return -1;
  }
  if (!blKeepCopy && !blEnableForward && !blEnableReply) return file.finish() ? 0 : -1;
  const std::string account = TrimDomainName(strUser);
  // a reply alone delivers, too
  if ((blKeepCopy || !blEnableForward) && !writeLine(&file, "\\" + account)) {
    LOG_ERROR("Can not set forward address.");
    return -1;
  }
  if (blEnableReply && !writeReplyCommand(&file, account)) {
    LOG_ERROR("Can not set vacation command.");
    return -1;
  }
  if (blEnableForward && !writeLine(&file, strForwardAddr)) {
    LOG_ERROR("Can not set forward address.");
    return -1;
  }
  return file.finish() ? 0 : -1;
}

int Personal::writeToMsg(const std::string &path) {
  if (!blEnableReply) return 0;
  TextFile file(path.c_str());
  if (!file.isOpen()) {
    LOG_ERROR("Can not open .vacation.msg file.");
    return -1;
  }
  // the reply's sender counts as its subject: log readers match this text
  if (!writeLine(&file, kFrom + ('"' + TrimDomainName(strUser)) + '"') ||
      !writeLine(&file, kSubject + strReplySubject)) {
    LOG_ERROR("Can not set subject.");
    return -1;
  }
  if (!writeLine(&file, strReplyMessage)) {
    LOG_ERROR("Can not set message.");
    return -1;
  }
  return file.finish() ? 0 : -1;
}
