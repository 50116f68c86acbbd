// postwell personal show|set USER: one user's forwarding and vacation reply.
//
// The library obeys what it is given, and the mail system what it writes. So an address
// is an address and nothing else, all work in the home directory is done as the user, and
// what could only be written in part is switched off. The text of the reply is read here
// as the mail's sender gets it: the library leaves out blank lines and those that begin
// with "#", and saving what it read would lose them.

#include <fcntl.h>
#include <personal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>

#include "as_user.h"
#include "command.h"
#include "common/local_domains.h"
#include "common/text.h"
#include "common/users.h"
#include "nouns.h"
#include "ports.h"
#include "readable.h"

namespace {

constexpr size_t kLongestText = 65536;
constexpr size_t kLargestFile = 1 << 20;

Failure unreadable(const Personal &personal, const SMTP &smtp) {
  const std::string user = inQuotes(personal.getUser());
  if (personal.getErrKey() == "acc_type_unsupport")
    return {kFailed, user + " is no name of an account of the type " +
                         inQuotes(smtp.getAccountType()) +
                         ", which\nthe mail server uses (\"postwell smtp show\"); a name "
                         "is NAME with \"local\",\nNAME@DOMAIN with \"ldap\" and "
                         "DOMAIN\\NAME with \"win\""};
  return {kFailed,
          "cannot read the settings of " + user +
              ": the home directory is not known,\n"
              "or \".forward\" or \".vacation.msg\" in it is no file that the user can "
              "read;\nthe system log tells which"};
}

// What a file held, or why that could not be read.
struct ReadText {
  std::string text;
  std::string problem;
};

// No more than asked for.
ReadText readFrom(std::FILE *stream, size_t limit) {
  std::string text(limit, '\0');
  text.resize(fread(text.data(), 1, text.size(), stream));
  if (ferror(stream) != 0) return {"", std::strerror(errno)};
  return {text, ""};
}

// The beginning of a file, which its owner may have replaced by anything: nothing is
// waited for.
ReadText readFile(const std::string &path, size_t limit) {
  const int file = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (file < 0) return {"", std::strerror(errno)};
  struct stat status {};
  const std::unique_ptr<std::FILE, int (*)(std::FILE *)> stream(fdopen(file, "r"),
                                                                fclose);
  if (stream == nullptr || fstat(file, &status) != 0) return {"", std::strerror(errno)};
  if (!S_ISREG(status.st_mode)) return {"", "it is no file with text"};
  return readFrom(stream.get(), limit);
}

// The library reads a file whole, however large.
void refuseLargeFiles(const std::string &user) {
  for (const char *name : {"/.forward", "/.vacation.msg"}) {
    struct stat status {};
    const std::string path = homeOf(user) + name;
    if (stat(path.c_str(), &status) == 0 &&
        status.st_size > static_cast<off_t>(kLargestFile))
      throw Failure(kFailed, inQuotes(path) +
                                 " is larger than 1 MB; it cannot be one "
                                 "that was made here");
  }
}

// The lines of the reply behind its subject.
std::string storedText(const std::string &home) {
  constexpr char kSubject[] = "Subject:";
  std::istringstream file(readFile(home + "/.vacation.msg", kLargestFile).text);
  std::string text;
  bool found = false;
  for (std::string line; std::getline(file, line);) {
    if (found) text += line + '\n';
    const size_t start = std::min(line.find_first_not_of(" \t"), line.size());
    found = found || line.compare(start, sizeof kSubject - 1, kSubject) == 0;
  }
  return text;
}

// With one form of line ends, and none at the end.
std::string normal(std::string text) {
  text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
  return text.substr(0, text.find_last_not_of('\n') + 1);
}

// Completes what the library has read; `mode` is what the user must be able to do in the
// home directory, as of access(2).
void complete(Personal &personal, int mode) {
  const SMTP smtp = readSmtp();  // without which the library takes accounts for local
  if (!personal.isValid()) throw unreadable(personal, smtp);
  const std::string home = homeOf(personal.getUser());
  if (access(home.c_str(), mode) != 0)
    throw Failure(kFailed, "the user cannot work in the home directory " +
                               inQuotes(home) + ": " + std::strerror(errno));
  personal.setReplyMessage(normal(storedText(home)));
}

Values describe(const Personal &personal) {
  return {{"forward", personal.getForwardAddr()},
          {"keep_copy", personal.isKeepCopy()},
          {"reply", personal.isEnabledReply()},
          {"reply_subject", personal.getReplySubject()},
          {"reply_text", personal.getReplyMessage()}};
}

Values readValues(const std::string &user) {
  becomeUser(user);
  refuseLargeFiles(user);
  Personal personal(user);
  complete(personal, X_OK);
  return describe(personal);
}

// The text as in a mail, behind a blank line.
void printAll(const Values &values) {
  Values lines = values;
  lines.erase("reply_text");
  printLines(lines);
  std::istringstream text(values["reply_text"].get<std::string>());
  if (!text.str().empty()) std::cout << '\n';
  for (std::string line; std::getline(text, line);) std::cout << readable(line) << '\n';
}

// ---- set

std::string textProblem(const std::string &text) {
  std::string visible = text;
  const auto isBlank = [](char c) { return c == ' ' || c == '\t' || c == '\n'; };
  visible.erase(std::remove_if(visible.begin(), visible.end(), isBlank), visible.end());
  if (text.size() > kLongestText)
    return "must have at most " + std::to_string(kLongestText) + " bytes";
  if (visible.empty()) return "must not be empty";
  if (!isUtf8(visible) || hasControl(visible))
    return "must be UTF-8 without control characters";
  return "";
}

// "-": standard input. A file is read with the user's rights: it may lie in his home and
// be a link to one that he may not read.
std::string readText(const std::string &name) {
  constexpr size_t kEnough = kLongestText + 1;
  const ReadText read = name == "-" ? readFrom(stdin, kEnough) : readFile(name, kEnough);
  if (!read.problem.empty())
    throw Failure(kFailed, "cannot read the reply from " + inQuotes(name) +
                               " with the user's rights: " + read.problem +
                               ";\none that only you can read is given as "
                               "\"--reply-file - <FILE\"");
  std::string text = normal(read.text);
  const std::string problem = textProblem(text);
  if (!problem.empty()) throw Failure(kWrongUsage, "the text of the reply " + problem);
  return text;
}

// The name stands in the ".forward" as an address and in a command.
bool isFitForForward(const std::string &name) {
  return !name.empty() && name.front() != '-' && name.front() != '.' &&
         isMadeOf(name, "._-");
}

// Whether mail for the address is the user's own, as far as the settings tell.
bool isOwnAddress(const std::string &address, const std::string &user) {
  const size_t at = address.find('@');
  const std::string mailbox = address.substr(0, std::min(at, address.find('+')));
  const std::vector<std::string> domains = localDomains();
  return lowerCase(mailbox) == lowerCase(TrimDomainName(user)) &&
         (at == std::string::npos ||
          std::find(domains.begin(), domains.end(), lowerCase(address.substr(at + 1))) !=
              domains.end());
}

void checkWhole(const Personal &personal) {
  const bool forwards = personal.isEnabledForward(), replies = personal.isEnabledReply();
  if ((forwards || replies) && !isFitForForward(TrimDomainName(personal.getUser())))
    throw Failure(kWrongUsage,
                  "the mail system would take the name " + inQuotes(personal.getUser()) +
                      " for an address or a command;\nonly letters and digits of ASCII, "
                      "\".\", \"_\" and \"-\" are safe");
  if (forwards && isOwnAddress(personal.getForwardAddr(), personal.getUser()))
    throw Failure(kWrongUsage,
                  inQuotes(personal.getForwardAddr()) +
                      " is the user's own address here, to which nothing can be "
                      "forwarded;\nname another one with --forward, or --no-forward");
  if (personal.isKeepCopy() && !forwards)
    throw Failure(kWrongUsage,
                  "only forwarded mail can be copied; name an address with --forward");
  if (replies && personal.getReplySubject().empty())
    throw Failure(kWrongUsage,
                  "a vacation reply needs a subject; name it with --reply-subject");
  if (replies && personal.getReplyMessage().empty())
    throw Failure(kWrongUsage,
                  "a vacation reply needs a text; name it with --reply-file");
}

void forwardTo(Personal &personal, const std::string &address) {
  personal.setForward(!address.empty());
  personal.setForwardAddr(address);
  if (address.empty()) personal.setKeepCopy(false);
}

void replyWith(Personal &personal, const std::string &subject) {
  personal.setReply(!subject.empty());
  personal.setReplySubject(subject);
  if (subject.empty()) personal.setReplyMessage("");
}

bool isStored(const Personal &personal) {
  Personal stored(personal.getUser());
  if (!stored.isValid()) return false;
  complete(stored, X_OK);
  return describe(stored) == describe(personal);
}

// An address or a reply that was written in part must not be obeyed.
Failure switchedOff(Personal &personal) {
  forwardTo(personal, "");
  replyWith(personal, "");
  const bool isOff = personal.save() == 0 && isStored(personal);
  return {kFailed, "saving failed; the system log tells at which step.\n" +
                       std::string(isOff ? "Forwarding and reply are off now, and mail "
                                           "stays in the mailbox."
                                         : "\".forward\" in the home directory may hold "
                                           "anything: look at it.")};
}

void confirm(const Personal &personal) {
  std::cout << "Mail for " << printable(personal.getUser());
  if (personal.isEnabledForward())
    std::cout << " goes to " << printable(personal.getForwardAddr())
              << (personal.isKeepCopy() ? ", with a copy in the mailbox" : "");
  else
    std::cout << " stays in the mailbox";
  std::cout << "; vacation reply " << onOff(personal.isEnabledReply()) << ".\n";
}

struct SetOptions {
  const CLI::Option *user, *replyFile, *noForward, *noReply, *off;
};

void runSet(const SetCommand<Personal> &set, const SetOptions &options) {
  const auto user = options.user->as<std::string>();
  becomeUser(user);
  std::optional<std::string> text;
  if (options.replyFile->count() > 0)
    text = readText(options.replyFile->as<std::string>());
  refuseLargeFiles(user);
  Personal personal(user);
  complete(personal, W_OK | X_OK);
  if (!personal.isEnabledReply()) replyWith(personal, "");  // a file may have been left
  const bool isOff = options.off->count() > 0;
  if (isOff || options.noForward->count() > 0) forwardTo(personal, "");
  if (isOff || options.noReply->count() > 0) replyWith(personal, "");
  set.apply(personal);
  if (text) {
    personal.setReply(true);
    personal.setReplyMessage(*text);
  }
  checkWhole(personal);
  if (personal.save() != 0 || !isStored(personal)) throw switchedOff(personal);
  confirm(personal);
}

CLI::Option *addUser(CLI::App &command) {
  return command.add_option("USER", "The user's name")->required()->type_name("");
}

void addSet(CLI::App &noun) {
  SetCommand<Personal> set(noun);
  CLI::App &command = *set.command();
  SetOptions options{};
  options.user = addUser(command);
  CLI::Option *const forward = set.option<std::string>(
      "--forward", "Where mail goes instead of the mailbox", forwardAddress(), forwardTo);
  CLI::Option *const keepCopy =
      set.option<bool>("--keep-copy", "Forwarded mail stays here as well", yesNo(),
                       &Personal::setKeepCopy);
  CLI::Option *const subject = set.option<std::string>(
      "--reply-subject", "The subject of the vacation reply", replySubject(), replyWith);
  CLI::Option *const replyFile =
      command.add_option("--reply-file", "Its text, from a file or (-) standard input");
  replyFile->type_name("FILE");
  options.replyFile = replyFile;
  options.noForward = command.add_flag("--no-forward", "Forward nothing")
                          ->excludes(forward)
                          ->excludes(keepCopy);
  options.noReply = command.add_flag("--no-reply", "Reply to nobody")
                        ->excludes(subject)
                        ->excludes(replyFile);
  options.off = command.add_flag("--off", "Both")
                    ->excludes(forward)
                    ->excludes(keepCopy)
                    ->excludes(subject)
                    ->excludes(replyFile);
  set.callback([set, options] { runSet(set, options); });
}

}  // namespace

void addPersonal(CLI::App &app) {
  CLI::App &noun = addNoun(app, "personal", "A user's forwarding and vacation reply");
  const auto user = std::make_shared<const CLI::Option *>();
  CLI::App &show = addReader(
      noun, "show", "Show the user's settings",
      [user] { return readValues((*user)->as<std::string>()); }, printAll);
  *user = addUser(show);
  addSet(noun);
}
