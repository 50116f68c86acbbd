#include "personal.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <map>

#include "support/files.h"
#include "support/library_test.h"
#include "support/limit.h"

namespace {

namespace fs = std::filesystem;

using Lines = std::vector<std::string>;
using Files = std::map<std::string, std::string>;

const std::string kHomes = "/var/services/homes";
const std::string kHome = kHomes + "/alice";
const std::string kForward = kHome + "/.forward";
const std::string kMessage = kHome + "/.vacation.msg";
const std::string kReplied = kHome + "/.vacation.db";
const std::string kCommand = "\"|/var/packages/Postwell/target/bin/vacation alice\"\n";

const std::string kForwardUnopened = "personal.cpp: Can not open Forward file.";
const std::string kForwardUnread = "personal.cpp: GetForwardAddress() failed";
const std::string kForwardUnwritten = "personal.cpp: Can not write to Forward file.";
const std::string kAddressUnset = "personal.cpp: Can not set forward address.";
const std::string kCommandUnset = "personal.cpp: Can not set vacation command.";
const std::string kMessageUnread = "personal.cpp: GetSubjectMsg() failed";
const std::string kMessageUnwritten =
    "personal.cpp: Can not write to .vacation.msg file.";
const std::string kSubjectUnset = "personal.cpp: Can not set subject.";
const std::string kTextUnset = "personal.cpp: Can not set message.";

Lines removed;              // what unlink() was called for
bool nothingGoes = false;   // unlink() fails
int closesUntilFailed = 0;  // the so manieth fclose() fails; 0: none

}  // namespace

// In the place of the system's own: the library's calls come here first.
extern "C" __attribute__((visibility("default"))) int unlink(const char *path) noexcept {
  removed.push_back(path);
  if (!nothingGoes)
    return reinterpret_cast<decltype(&unlink)>(dlsym(RTLD_NEXT, "unlink"))(path);
  errno = EPERM;
  return -1;
}

extern "C" __attribute__((visibility("default"))) int fclose(FILE *file) {
  const int result = reinterpret_cast<int (*)(FILE *)>(dlsym(RTLD_NEXT, "fclose"))(file);
  if (closesUntilFailed == 0 || --closesUntilFailed > 0) return result;
  errno = EIO;
  return EOF;
}

namespace {

class PersonalTest : public LibraryTest {
 protected:
  PersonalTest() {
    signal(SIGXFSZ, SIG_IGN);
    writeDefaults();
    for (const auto &entry : fs::directory_iterator(kHomes)) fs::remove_all(entry);
    fs::create_directory(kHome);
  }
  ~PersonalTest() override {
    chmod(kHome.c_str(), 0755);
    nothingGoes = false;
  }
};

// What is set, as "forward copy reply <address> <subject> <message>".
std::string shown(const Personal &personal) {
  EXPECT_TRUE(personal.isValid()) << personal.getErrKey();
  return std::string(personal.isEnabledForward() ? "forward " : "") +
         (personal.isKeepCopy() ? "copy " : "") +
         (personal.isEnabledReply() ? "reply " : "") + '<' + personal.getForwardAddr() +
         "> <" + personal.getReplySubject() + "> <" + personal.getReplyMessage() + '>';
}

const std::string kNothing = "<> <> <>";

// The files of a home with their contents; those that are no file with none.
Files filesOf(const std::string &home = kHome) {
  Files files;
  for (const auto &entry : fs::directory_iterator(home))
    files[entry.path().filename()] =
        fs::is_regular_file(entry) ? readFile(entry.path()) : "";
  return files;
}

// All three on: the longest files there are.
void setAll(Personal *personal) {
  personal->setForward(true);
  personal->setKeepCopy(true);
  personal->setForwardAddr("alice@elsewhere.example");
  personal->setReply(true);
  personal->setReplySubject("Away");
  personal->setReplyMessage("Back on Monday");
}

const std::string kAllForward = "\\alice\n" + kCommand + "alice@elsewhere.example\n";
const std::string kAllMessage = "From:\"alice\"\nSubject:Away\nBack on Monday\n";

// ---- construction

TEST_F(PersonalTest, AFreshUserHasNothingSet) {
  const Personal personal("alice");
  EXPECT_EQ(shown(personal), kNothing);
  EXPECT_EQ(personal.getUser(), "alice");
  EXPECT_EQ(personal.getErrKey(), "");
  EXPECT_EQ(filesOf(), Files());
}

TEST_F(PersonalTest, AnEmptyNameIsABadParameterWithoutKey) {
  platform::takeCalls();
  const Personal personal("");
  EXPECT_FALSE(personal.isValid());
  EXPECT_EQ(personal.getErrKey(), "");
  EXPECT_EQ(personal.getUser(), "");
  EXPECT_EQ(platform::takeCalls(), Lines());  // not even the settings are read
  expectLog({"personal.cpp: Bad parameter"});
}

TEST_F(PersonalTest, WithoutSettingsAccountsAreLocal) {
  unlink(PackageTree::kSettings);
  EXPECT_TRUE(Personal("alice").isValid());
  EXPECT_FALSE(Personal("carla@corp.example").isValid());
  const std::string unread = "smtp.cpp: KLIBCFileGetPair fail";
  expectLog({unread, unread});
}

TEST_F(PersonalTest, TheNameTellsTheKindOfAccountWhichMustBeTheServers) {
  const std::map<std::string, Lines> names = {
      {"local", {"alice", "a b", "..", "\\alice", "@alice", "\\", "@"}},
      {"ldap", {"carla@corp.example", "a@", "@a@b", "\\a@b", "a@b@c"}},
      {"win", {"OFFICE\\bert", "a\\", "\\a\\b", "a@b\\c", "@a\\b"}}};
  for (const auto &[kind, users] : names)
    for (const std::string type : {"local", "ldap", "win", "nis"})
      for (const std::string &user : users) {
        writeFile(PackageTree::kSettings, "account_type=\"" + type + "\"\n");
        const Personal personal(user);
        const Lines homes =
            callsOf({"KESTDomainUserHomePathGet", "KESTLDAPUserHomePathGet"});
        EXPECT_EQ(personal.getUser(), user);
        if (type != kind) {
          EXPECT_FALSE(personal.isValid()) << user;
          EXPECT_EQ(personal.getErrKey(), "acc_type_unsupport") << user;
          EXPECT_EQ(homes, Lines()) << user;
        } else if (kind == "local") {
          EXPECT_TRUE(personal.isValid()) << user;
          EXPECT_EQ(homes, Lines()) << user;
        } else {  // of no such account
          EXPECT_EQ(personal.getErrKey(), "no_user_home") << user;
          const std::string function =
              kind == "win" ? "KESTDomainUserHomePathGet" : "KESTLDAPUserHomePathGet";
          EXPECT_EQ(homes, Lines{function + " " + user + " 4096"});
          expectLog({"personal.cpp: " + function + "(user[" + user + "]) failed"});
        }
      }
}

TEST_F(PersonalTest, AnyNegativeResultIsAFailureToFindTheHome) {
  writeFile(PackageTree::kSettings, "account_type=\"win\"\n");
  platform::answerCall("KESTDomainUserHomePathGet", -7);
  const Personal personal("OFFICE\\bert");
  EXPECT_FALSE(personal.isValid());
  EXPECT_EQ(personal.getErrKey(), "no_user_home");
  expectLog({"personal.cpp: KESTDomainUserHomePathGet(user[OFFICE\\bert]) failed"});
}

TEST_F(PersonalTest, ALocalUsersHomeIsNotLookedFor) {
  Personal personal("bob");
  EXPECT_EQ(shown(personal), kNothing);
  EXPECT_EQ(personal.save(), 0);
  personal.setReply(true);
  EXPECT_EQ(personal.save(), -1);
  expectLog({kForwardUnopened, kForwardUnwritten});
  EXPECT_FALSE(fileExists(kHomes + "/bob"));
}

TEST_F(PersonalTest, ALocalNameIsTheFolderAsItStands) {
  fs::create_directory(kHomes + "/a b");
  writeFile(kHomes + "/a b/.forward", "with@blank.example\n");
  writeFile("/var/services/.forward", "above@homes.example\n");
  EXPECT_EQ(Personal("a b").getForwardAddr(), "with@blank.example");
  EXPECT_EQ(Personal("..").getForwardAddr(), "above@homes.example");
  EXPECT_EQ(Personal("alice/../..").getForwardAddr(), "above@homes.example");
  fs::remove("/var/services/.forward");
}

TEST_F(PersonalTest, AHomeThatMayNotBeEnteredLooksEmptyUntilItIsWritten) {
  writeFile(kForward, "bob@x.example\n");
  ASSERT_EQ(chmod(kHome.c_str(), 0), 0);
  Personal personal("alice");
  EXPECT_EQ(shown(personal), kNothing);
  personal.setReply(true);
  EXPECT_EQ(personal.save(), -1);
  expectLog({kForwardUnopened, kForwardUnwritten});
  ASSERT_EQ(chmod(kHome.c_str(), 0755), 0);
  EXPECT_EQ(filesOf(), (Files{{".forward", "bob@x.example\n"}}));
}

// ---- reading .forward

TEST_F(PersonalTest, AForwardFileIsReadByItsLines) {
  const std::string long_(1 << 20, 'x');
  const std::pair<std::string, std::string> cases[] = {
      {"", kNothing},
      {"\n \t\r\n# none\n  # none either\n\n", kNothing},
      {"bob@x.example\n", "forward <bob@x.example> <> <>"},
      {"bob@x.example", "forward <bob@x.example> <> <>"},
      {" \t bob@x.example\v\f \r\n", "forward <bob@x.example> <> <>"},
      {"\\alice\nbob@x.example\n", "forward copy <bob@x.example> <> <>"},
      {"\\alice\r\nbob@x.example\r\n", "forward copy <bob@x.example> <> <>"},
      {"\\anyone else\nbob@x.example\n", "forward copy <bob@x.example> <> <>"},
      {"# a comment\n\n  \\alice\n# another\nbob@x.example\n",
       "forward copy <bob@x.example> <> <>"},
      {"bob@x.example\ncarol@x.example\n\\alice\n", "forward <bob@x.example> <> <>"},
      {"bob@x.example, \\alice\n", "forward <bob@x.example, \\alice> <> <>"},
      {"\"|/usr/bin/procmail\"\n", "forward <\"|/usr/bin/procmail\"> <> <>"},
      {"\\alice\n", kNothing},
      {"\\alice\n" + kCommand, "reply <> <> <>"},
      {kCommand + "\\alice\nbob@x.example\n", "forward copy reply <bob@x.example> <> <>"},
      {"bob@x.example\n" + kCommand, "forward reply <bob@x.example> <> <>"},
      {"\\alice, \"|/usr/bin/vacation alice\"\nbob@x.example\n",
       "forward reply <bob@x.example> <> <>"},
      {"bob/bin/vacation@x.example\n", "reply <> <> <>"},
      {"#\"|/usr/bin/vacation alice\"\nbob@x.example\n",
       "forward reply <bob@x.example> <> <>"},
      {long_ + "\n" + kCommand, "forward reply <" + long_ + "> <> <>"},
      {"#" + long_ + "\nbob@x.example\n", "forward <bob@x.example> <> <>"},
      {std::string("bob\0@x.example\nyou\n", 19), "forward <bob> <> <>"},
      {std::string("\0\0hidden\nbob\n", 13), "forward <bob> <> <>"},
      {std::string("\0/bin/vacation\n", 15), "reply <> <> <>"},
      {"\xff\xfe\x01\x80\n", "forward <\xff\xfe\x01\x80> <> <>"}};
  for (const auto &[text, expected] : cases) {
    writeFile(kForward, text);
    EXPECT_EQ(shown(Personal("alice")), expected) << text.substr(0, 80);
    EXPECT_EQ(callsOf({"KLIBCFileGetLine"}),
              Lines{"KLIBCFileGetLine " + kForward + " /bin/vacation 1024"});
  }
}

// A user with this file there has no home.
void expectUnread(const std::string &what) {
  const Personal personal("alice");
  EXPECT_FALSE(personal.isValid()) << what;
  EXPECT_EQ(personal.getErrKey(), "no_user_home") << what;
}

// Puts what cannot be opened as a file there, one after another.
template <class Check>
void forEachThatIsNoFile(const std::string &path, const Check &check) {
  ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
  check("a folder");
  ASSERT_EQ(rmdir(path.c_str()), 0);
  ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
  check("a pipe that nobody writes");
  fs::remove(path);
  ASSERT_EQ(symlink("/dev/zero", path.c_str()), 0);
  check("a device without end");
  fs::remove(path);
  writeFile(path, "", 0);
  check("a file that may not be read");
  fs::remove(path);
}

TEST_F(PersonalTest, AForwardFileThatCannotBeOpenedIsNoUserHome) {
  forEachThatIsNoFile(kForward, [this](const char *what) {
    expectUnread(what);
    expectLog({kForwardUnopened, kForwardUnread});
  });
}

TEST_F(PersonalTest, AForwardFileThatCannotBeReadOnIsNoUserHome) {
  ASSERT_EQ(symlink("/proc/self/mem", kForward.c_str()), 0);  // EIO
  writeFile(kMessage, "", 0);                                 // is not come to
  expectUnread("a file with a bad sector");
  expectLog({kForwardUnread});
}

TEST_F(PersonalTest, AForwardFileThatIsALinkToNothingIsNone) {
  ASSERT_EQ(symlink("nowhere", kForward.c_str()), 0);
  EXPECT_EQ(shown(Personal("alice")), kNothing);
}

TEST_F(PersonalTest, AReplyIsOffWhereTheHostCannotSeek) {
  writeFile(kForward, "\\alice\n" + kCommand + "bob@x.example\n");
  platform::failCall("KLIBCFileGetLine");
  EXPECT_EQ(shown(Personal("alice")), "forward copy <bob@x.example> <> <>");
}

// ---- reading .vacation.msg

TEST_F(PersonalTest, AReplyIsReadByItsLines) {
  const std::string long_(1 << 20, 'x');
  const std::pair<std::string, std::string> cases[] = {
      {"", kNothing},
      {"From:\"alice\"\nBack on Monday\n", kNothing},
      {"From:\"alice\"\nsubject:Away\n Re: Subject:\nBack\n", kNothing},
      {kAllMessage, "<> <Away> <Back on Monday\r\n>"},
      {"Subject:", kNothing},
      {"Subject:\n\n\n", kNothing},
      {"Subject: Away\n", "<> < Away> <>"},
      {"  Subject:Away \t\r\n", "<> <Away> <>"},
      {"before\nSubject:Away", "<> <Away> <>"},
      {"#Subject:none\nSubject:Away\none\ntwo", "<> <Away> <one\r\ntwo\r\n>"},
      {"Subject:Away\n\none\n \n  two\r\n# three\n\tfour \n",
       "<> <Away> <one\r\ntwo\r\nfour\r\n>"},
      {"Subject:Away\nSubject:again\nFrom:x\n",
       "<> <Away> <Subject:again\r\nFrom:x\r\n>"},
      {"Subject:" + long_ + "\n" + long_ + "\n",
       "<> <" + long_ + "> <" + long_ + "\r\n>"},
      {std::string("Subject:A\0way\nBa\0ck\n\0\n\xff\n", 24), "<> <A> <Ba\r\n\xff\r\n>"}};
  for (const auto &[text, expected] : cases) {
    writeFile(kMessage, text);
    EXPECT_EQ(shown(Personal("alice")), expected) << text.substr(0, 80);
  }
}

TEST_F(PersonalTest, AReplyThatCannotBeOpenedIsNoUserHome) {
  forEachThatIsNoFile(kMessage, [this](const char *what) {
    expectUnread(what);
    expectLog({"personal.cpp: Can not open vacation file.", kMessageUnread});
  });
}

TEST_F(PersonalTest, AReplyThatCannotBeReadOnIsNoUserHome) {
  writeFile(kForward, "\\alice\n" + kCommand + "bob@x.example\n");
  ASSERT_EQ(symlink("/proc/self/mem", kMessage.c_str()), 0);  // EIO
  const Personal personal("alice");
  EXPECT_FALSE(personal.isValid());
  EXPECT_EQ(personal.getErrKey(), "no_user_home");
  EXPECT_EQ(personal.getForwardAddr(), "bob@x.example");  // was read before
  EXPECT_EQ(personal.getReplySubject() + personal.getReplyMessage(), "");
  expectLog({kMessageUnread});
}

// ---- setters

TEST_F(PersonalTest, EachSetterSetsItsFieldInMemoryOnly) {
  Personal personal("alice");
  personal.setForward(true);
  EXPECT_EQ(shown(personal), "forward <> <> <>");
  personal.setKeepCopy(true);
  EXPECT_EQ(shown(personal), "forward copy <> <> <>");
  personal.setForwardAddr("b");
  EXPECT_EQ(shown(personal), "forward copy <b> <> <>");
  personal.setReply(true);
  EXPECT_EQ(shown(personal), "forward copy reply <b> <> <>");
  personal.setReplySubject("s");
  EXPECT_EQ(shown(personal), "forward copy reply <b> <s> <>");
  personal.setReplyMessage("m\n");
  EXPECT_EQ(shown(personal), "forward copy reply <b> <s> <m\n>");
  personal.setForward(false);
  personal.setKeepCopy(false);
  personal.setReply(false);
  EXPECT_EQ(shown(personal), "<b> <s> <m\n>");
  EXPECT_EQ(filesOf(), Files());
}

// ---- save

TEST_F(PersonalTest, EachCombinationWritesItsLines) {
  const std::string own = "\\alice\n", address = "bob@x.example\n";
  const std::map<std::string, Files> expected = {
      {"", {}},
      {"copy", {}},
      {"forward", {{".forward", address}}},
      {"forward copy", {{".forward", own + address}}},
      {"reply", {{".forward", own + kCommand}, {".vacation.msg", kAllMessage}}},
      {"copy reply", {{".forward", own + kCommand}, {".vacation.msg", kAllMessage}}},
      {"forward reply",
       {{".forward", kCommand + address}, {".vacation.msg", kAllMessage}}},
      {"forward copy reply",
       {{".forward", own + kCommand + address}, {".vacation.msg", kAllMessage}}}};
  const auto has = [](const std::string &words, const char *word) {
    return words.find(word) != std::string::npos;
  };
  for (const auto &[words, files] : expected) {
    Personal personal("alice");
    setAll(&personal);
    personal.setForwardAddr("bob@x.example");
    personal.setForward(has(words, "forward"));
    personal.setKeepCopy(has(words, "copy"));
    personal.setReply(has(words, "reply"));
    EXPECT_EQ(personal.save(), 0) << words;
    EXPECT_EQ(filesOf(), files) << words;
  }
}

TEST_F(PersonalTest, AReplyAloneIsReadBackWithoutForwardingAndCopy) {
  Personal personal("alice");
  personal.setReply(true);
  personal.setKeepCopy(true);
  personal.setReplySubject(" Away");
  personal.setReplyMessage("one\n\n  two\n# three");
  EXPECT_EQ(personal.save(), 0);
  EXPECT_EQ(filesOf(),
            (Files{{".forward", "\\alice\n" + kCommand},
                   {".vacation.msg",
                    "From:\"alice\"\nSubject: Away\none\n\n  two\n# three\n"}}));
  EXPECT_EQ(shown(Personal("alice")), "reply <> < Away> <one\r\ntwo\r\n>");
}

TEST_F(PersonalTest, AForwardedCopyIsReadBack) {
  Personal personal("alice");
  setAll(&personal);
  personal.setReply(false);
  EXPECT_EQ(personal.save(), 0);
  EXPECT_EQ(shown(Personal("alice")), "forward copy <alice@elsewhere.example> <> <>");
}

TEST_F(PersonalTest, ForwardingToNowhereIsWrittenAndReadBackAsOff) {
  Personal personal("alice");
  personal.setForward(true);
  EXPECT_EQ(personal.save(), 0);
  EXPECT_EQ(filesOf(), (Files{{".forward", "\n"}}));
  EXPECT_EQ(shown(Personal("alice")), kNothing);
}

TEST_F(PersonalTest, TextsAreWrittenAsTheyStand) {
  Personal personal("alice");
  setAll(&personal);
  personal.setForwardAddr("%s\n|/bin/sh");
  personal.setReplySubject("%n\nBcc:x");
  personal.setReplyMessage("%d\r\n\r\n.\n");
  EXPECT_EQ(personal.save(), 0);
  EXPECT_EQ(
      filesOf(),
      (Files{{".forward", "\\alice\n" + kCommand + "%s\n|/bin/sh\n"},
             {".vacation.msg", "From:\"alice\"\nSubject:%n\nBcc:x\n%d\r\n\r\n.\n\n"}}));
}

TEST_F(PersonalTest, OldFilesAreRemovedInTheirOrderAndOthersStay) {
  const Files others = {{".forward.lock", "1"}, {"vacation.msg", "2"}};
  for (const auto &[name, text] : others) writeFile(kHome + "/" + name, text);
  for (const std::string &path : {kForward, kMessage, kReplied}) writeFile(path, "old");
  Personal personal("alice");
  personal.setForward(false);
  removed.clear();
  EXPECT_EQ(personal.save(), 0);
  EXPECT_EQ(removed, (Lines{kForward, kMessage, kReplied}));
  EXPECT_EQ(filesOf(), others);
  removed.clear();
  EXPECT_EQ(personal.save(), 0);
  EXPECT_EQ(removed, Lines());  // what is not there is not removed
}

TEST_F(PersonalTest, AFileThatDoesNotGoIsWrittenInPlace) {
  for (const std::string &path : {kForward, kMessage, kReplied})
    writeFile(path, std::string(1000, 'x'));
  Personal personal("alice");
  setAll(&personal);
  ASSERT_EQ(chmod(kHome.c_str(), 0555), 0);
  EXPECT_EQ(personal.save(), 0);
  EXPECT_EQ(filesOf(), (Files{{".forward", kAllForward},
                              {".vacation.msg", kAllMessage},
                              {".vacation.db", std::string(1000, 'x')}}));
}

TEST_F(PersonalTest, NothingIsWrittenIntoAHomeThatMayNotBeWritten) {
  Personal personal("alice");
  setAll(&personal);
  ASSERT_EQ(chmod(kHome.c_str(), 0555), 0);
  EXPECT_EQ(personal.save(), -1);
  EXPECT_EQ(filesOf(), Files());
  expectLog({kForwardUnopened, kForwardUnwritten});
}

TEST_F(PersonalTest, AFolderInThePlaceOfTheForwardFileEndsTheSave) {
  writeFile(kMessage, "old");
  Personal personal("alice");
  setAll(&personal);
  fs::create_directory(kForward);
  EXPECT_EQ(personal.save(), -1);
  EXPECT_EQ(filesOf(), (Files{{".forward", ""}}));  // the old message is gone
  expectLog({kForwardUnopened, kForwardUnwritten});
}

TEST_F(PersonalTest, AFolderInThePlaceOfTheReplyEndsTheSaveAfterTheForwardFile) {
  Personal personal("alice");
  setAll(&personal);
  fs::create_directory(kMessage);
  EXPECT_EQ(personal.save(), -1);
  EXPECT_EQ(filesOf(), (Files{{".forward", kAllForward}, {".vacation.msg", ""}}));
  expectLog({"personal.cpp: Can not open .vacation.msg file.", kMessageUnwritten});
  personal.setReply(false);  // then nobody asks for it
  EXPECT_EQ(personal.save(), 0);
}

TEST_F(PersonalTest, AFolderInThePlaceOfTheRecordStays) {
  Personal personal("alice");
  setAll(&personal);
  fs::create_directory(kReplied);
  EXPECT_EQ(personal.save(), 0);
  EXPECT_EQ(filesOf(), (Files{{".forward", kAllForward},
                              {".vacation.msg", kAllMessage},
                              {".vacation.db", ""}}));
}

// The disk is full at each byte in turn: the line that it strikes is the one told of, and
// nothing follows it.
TEST_F(PersonalTest, AFullDiskIsToldAtTheLineOfTheForwardFileItStrikes) {
  Personal personal("alice");
  setAll(&personal);
  const size_t command = std::string("\\alice\n").size(),
               address = command + kCommand.size();
  for (size_t room = 0; room < kAllForward.size(); room++) {
    writeFile(kMessage, "old");
    const Limit disk(RLIMIT_FSIZE, room);
    EXPECT_EQ(personal.save(), -1) << room;
    expectLog({room < command || room >= address ? kAddressUnset : kCommandUnset,
               kForwardUnwritten});
    EXPECT_EQ(filesOf(), (Files{{".forward", kAllForward.substr(0, room)}}));
  }
}

TEST_F(PersonalTest, AFullDiskIsToldAtTheLineOfTheReplyItStrikes) {
  Personal personal("alice");
  setAll(&personal);
  ASSERT_EQ(symlink("/dev/null", kForward.c_str()), 0);  // where there is always room
  nothingGoes = true;
  const size_t text = kAllMessage.find("Back");
  for (size_t room = 0; room < kAllMessage.size(); room++) {
    const Limit disk(RLIMIT_FSIZE, room);
    EXPECT_EQ(personal.save(), -1) << room;
    expectLog({room < text ? kSubjectUnset : kTextUnset, kMessageUnwritten});
    EXPECT_EQ(readFile(kMessage), kAllMessage.substr(0, room));
  }
}

TEST_F(PersonalTest, ADeviceThatIsFullFailsTheFirstLine) {
  Personal personal("alice");
  setAll(&personal);
  nothingGoes = true;
  ASSERT_EQ(symlink("/dev/full", kMessage.c_str()), 0);
  EXPECT_EQ(personal.save(), -1);
  expectLog({kSubjectUnset, kMessageUnwritten});
  EXPECT_EQ(readFile(kForward), kAllForward);
  fs::remove(kForward);
  ASSERT_EQ(symlink("/dev/full", kForward.c_str()), 0);
  EXPECT_EQ(personal.save(), -1);
  expectLog({kAddressUnset, kForwardUnwritten});
  personal.setKeepCopy(false);
  EXPECT_EQ(personal.save(), -1);
  expectLog({kCommandUnset, kForwardUnwritten});
  personal.setReply(false);
  EXPECT_EQ(personal.save(), -1);
  expectLog({kAddressUnset, kForwardUnwritten});
}

TEST_F(PersonalTest, ACommandForWhichThereIsNoMemoryIsNotSet) {
  Personal personal("alice");
  setAll(&personal);
  platform::failCall("KLIBCStrGet");
  EXPECT_EQ(personal.save(), -1);
  expectLog({kCommandUnset, kForwardUnwritten});
  EXPECT_EQ(filesOf(), (Files{{".forward", "\\alice\n"}}));
}

TEST_F(PersonalTest, AFileThatDoesNotCloseIsNotWritten) {
  Personal personal("alice");
  setAll(&personal);
  closesUntilFailed = 1;
  EXPECT_EQ(personal.save(), -1);
  expectLog({kForwardUnwritten});
  EXPECT_FALSE(fileExists(kMessage));
  closesUntilFailed = 2;
  EXPECT_EQ(personal.save(), -1);
  expectLog({kMessageUnwritten});
}

TEST_F(PersonalTest, FilesHaveTheModeOfTheProcess) {
  Personal personal("alice");
  setAll(&personal);
  const mode_t before = umask(027);
  EXPECT_EQ(personal.save(), 0);
  umask(before);
  for (const std::string &path : {kForward, kMessage}) {
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u) << path;
    EXPECT_EQ(st.st_uid, geteuid()) << path;
  }
}

TEST_F(PersonalTest, AnObjectThatIsNotValidIsSavedAllTheSame) {
  Personal personal("carla@corp.example");  // has no home, so its files are the root's
  EXPECT_FALSE(personal.isValid());
  setAll(&personal);
  EXPECT_EQ(personal.save(), 0);
  EXPECT_EQ(readFile("/.forward"),
            "\\carla\n\"|/var/packages/Postwell/target/bin/vacation carla\"\n"
            "alice@elsewhere.example\n");
  EXPECT_EQ(readFile("/.vacation.msg"), "From:\"carla\"\nSubject:Away\nBack on Monday\n");
  personal.setForward(false);
  personal.setReply(false);
  EXPECT_EQ(personal.save(), 0);
  EXPECT_FALSE(fileExists("/.forward") || fileExists("/.vacation.msg"));
}

TEST_F(PersonalTest, ANameThatBeginsWithASignIsWrittenWhole) {
  for (const std::string user : {"\\alice", "@alice", "a b"}) {
    fs::create_directory(kHomes + "/" + user);
    Personal personal(user);
    personal.setReply(true);
    EXPECT_EQ(personal.save(), 0);
    EXPECT_EQ(filesOf(kHomes + "/" + user),
              (Files{{".forward", "\\" + user +
                                      "\n\"|/var/packages/Postwell/target/bin/vacation " +
                                      user + "\"\n"},
                     {".vacation.msg", "From:\"" + user + "\"\nSubject:\n\n"}}));
  }
}

}  // namespace
