#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>

#include "alias.h"
#include "platform/children.h"
#include "postwell.h"
#include "support/database.h"
#include "support/files.h"
#include "support/library_test.h"

namespace {

using Lines = std::list<std::string>;
using Texts = std::vector<std::string>;

const std::string kFolder = "/var/packages/Postwell/target/etc/";
const std::string kFile = kFolder + "sections";
const std::string kPidFile = kFolder + "service.pid";
const std::string kAliasDB = "/var/packages/Postwell/etc/alias.db";

// The system calls that the library makes, as the test wants them.
std::vector<unsigned> slept;          // the seconds of each sleep()
std::function<void()> whileSleeping;  // happens in the sleep's place
std::vector<pid_t> killed;            // who was sent a signal
bool daemonFails = false;
std::function<int(struct sysinfo *)> machine;  // the real one when empty

class UtilsTest : public LibraryTest {
 protected:
  UtilsTest() {
    slept.clear();
    killed.clear();
    whileSleeping = nullptr;
    daemonFails = false;
    machine = nullptr;
  }
};

// ---- GetSectionContent

class SectionTest : public UtilsTest {
 protected:
  // The lines of section "wanted" of a file with this text.
  static Lines read(const std::string &text) {
    writeFile(kFile, text);
    Lines lines;
    EXPECT_EQ(GetSectionContent(kFile.c_str(), "wanted", lines), 0);
    return lines;
  }
};

TEST_F(SectionTest, GivesTheTrimmedLinesOfTheSectionOnly) {
  EXPECT_EQ(read("before\n[other]\nx\n[wanted]\n  a b \t\r\n\tc\n[last]\nd\n"),
            (Lines{"a b", "c"}));
}

TEST_F(SectionTest, TheLastSectionEndsWithTheFile) {
  EXPECT_EQ(read("[wanted]\na\nwithout newline"), (Lines{"a", "without newline"}));
  EXPECT_EQ(read("[wanted]\n"), Lines());
  EXPECT_EQ(read("[wanted]"), Lines());
}

TEST_F(SectionTest, AMissingSectionIsEmpty) {
  EXPECT_EQ(read("[other]\na\n"), Lines());
  EXPECT_EQ(read(""), Lines());
  EXPECT_EQ(read("wanted\na\n"), Lines());
}

TEST_F(SectionTest, OnlyTheFirstOfTwoIsRead) {
  EXPECT_EQ(read("[wanted]\na\n[other]\nx\n[wanted]\nb\n"), Lines{"a"});
  EXPECT_EQ(read("[wanted]\na\n[wanted]\nb\n"), Lines{"a"});
}

TEST_F(SectionTest, OnlyABracketInTheFirstColumnEndsIt) {
  EXPECT_EQ(read("[wanted]\n [indented]\na [b]\n[not closed\nx\n"),
            (Lines{"[indented]", "a [b]"}));
}

TEST_F(SectionTest, TheHeaderItselfMayBeIndented) {
  EXPECT_EQ(read(" [ WANTED ] \na\n"), Lines{"a"});
}

TEST_F(SectionTest, ThereAreNoComments) {
  EXPECT_EQ(read("[wanted]\n# a\n; b\n//c\n"), (Lines{"# a", "; b", "//c"}));
}

TEST_F(SectionTest, ABlankLineIsSkippedAndLogged) {
  EXPECT_EQ(read("\n[wanted]\na\n\n \t\nb\n"), (Lines{"a", "b"}));
  const std::string blank = "utils.cpp: KLIBCStrTrimSpace :  fail";
  expectLog({blank, blank});
}

TEST_F(SectionTest, LinesAreAppendedToTheList) {
  writeFile(kFile, "[wanted]\nb\n");
  Lines lines = {"a"};
  EXPECT_EQ(GetSectionContent(kFile.c_str(), "wanted", lines), 0);
  EXPECT_EQ(GetSectionContent(kFile.c_str(), "wanted", lines), 0);
  EXPECT_EQ(lines, (Lines{"a", "b", "b"}));
}

TEST_F(SectionTest, TheFileIsClosedAgain) {
  const int before = database::descriptorsOf(kFile);
  EXPECT_EQ(read("[wanted]\na\n"), Lines{"a"});
  EXPECT_EQ(database::descriptorsOf(kFile), before);
}

TEST_F(SectionTest, LinesMayBeLong) {
  const std::string line(200'000, 'x');
  EXPECT_EQ(read("[wanted]\n" + line + "\nshort\n"), (Lines{line, "short"}));
}

TEST_F(SectionTest, NullParametersAreRefused) {
  writeFile(kFile, "[wanted]\na\n");
  Lines lines = {"kept"};
  EXPECT_EQ(GetSectionContent(nullptr, "wanted", lines), -1);
  EXPECT_EQ(GetSectionContent(kFile.c_str(), nullptr, lines), -1);
  EXPECT_EQ(lines, Lines{"kept"});
  expectLog({"utils.cpp: Bad Parameter", "utils.cpp: Bad Parameter"});
}

TEST_F(SectionTest, AFileThatCannotBeOpenedIsReported) {
  Lines lines;
  EXPECT_EQ(GetSectionContent((kFolder + "missing").c_str(), "wanted", lines), -1);
  writeFile(kFile, "[wanted]\na\n", 0);
  EXPECT_EQ(GetSectionContent(kFile.c_str(), "wanted", lines), -1);
  EXPECT_EQ(lines, Lines());
  expectLog({"utils.cpp: Open " + kFolder + "missing fail",
             "utils.cpp: Open " + kFile + " fail"});
}

TEST_F(SectionTest, AReadErrorEndsTheScan) {
  Lines lines;
  EXPECT_EQ(GetSectionContent(kFolder.c_str(), "wanted", lines),
            0);  // a folder opens, unreadable
  EXPECT_EQ(lines, Lines());
}

// ---- StringJoin, StringSplit

TEST_F(UtilsTest, JoinPutsTheSeparatorBetweenNeighbours) {
  EXPECT_EQ(StringJoin({}, ", "), "");
  EXPECT_EQ(StringJoin({"a"}, ", "), "a");
  EXPECT_EQ(StringJoin({"a", "a", "b"}, ", "), "a, a, b");
  EXPECT_EQ(StringJoin({"", "", ""}, ","), ",,");
  EXPECT_EQ(StringJoin({"a", "b"}, ""), "ab");
}

TEST_F(UtilsTest, SplitCutsAtTheWholeDelimiterAndDropsEmptyPieces) {
  EXPECT_EQ(StringSplit("a,,b", ","), (Lines{"a", "b"}));
  EXPECT_EQ(StringSplit("a::b", "::"), (Lines{"a", "b"}));
  EXPECT_EQ(StringSplit("a:b::c:", "::"), (Lines{"a:b", "c:"}));
  EXPECT_EQ(StringSplit(":::a", "::"), Lines{":a"});
  EXPECT_EQ(StringSplit(",a,b,", ","), (Lines{"a", "b"}));
  EXPECT_EQ(StringSplit("a", ","), Lines{"a"});
  EXPECT_EQ(StringSplit("", ","), Lines());
  EXPECT_EQ(StringSplit(",,,", ","), Lines());
  EXPECT_EQ(StringSplit("b,a,b", ","), (Lines{"b", "a", "b"}));
  EXPECT_EQ(StringSplit(" a , b ", ","), (Lines{" a ", " b "}));
}

TEST_F(UtilsTest, SplitUndoesJoin) {
  const Lines items = {"a.example", "b", "c, d"};
  EXPECT_EQ(StringSplit(StringJoin(items, "; ").c_str(), "; "), items);
}

// ---- Trim, TrimDomainName

std::string trimmed(std::string text) {
  Trim(text);
  return text;
}

TEST_F(UtilsTest, TrimRemovesBlanksThenNewlines) {
  EXPECT_EQ(trimmed("  a b  "), "a b");
  EXPECT_EQ(trimmed("a\n"), "a");
  EXPECT_EQ(trimmed("a\n\n"), "a");
  EXPECT_EQ(trimmed("a \n"), "a ");  // blanks were looked for before
  EXPECT_EQ(trimmed("a\n "), "a");
  EXPECT_EQ(trimmed("a\n \n"), "a\n ");
  EXPECT_EQ(trimmed("\n a"), "\n a");  // a newline in front stays
  EXPECT_EQ(trimmed(" \n"), "");
  EXPECT_EQ(trimmed("   "), "");
  EXPECT_EQ(trimmed("\n\n"), "");
  EXPECT_EQ(trimmed(""), "");
}

TEST_F(UtilsTest, TrimLeavesTabsAndCarriageReturns) {
  EXPECT_EQ(trimmed("\ta\t"), "\ta\t");
  EXPECT_EQ(trimmed(" \t a \r\n"), "\t a \r");
}

TEST_F(UtilsTest, TheDomainIsTakenOffAnAccountName) {
  const std::pair<const char *, const char *> cases[] = {
      {"OFFICE\\anna", "anna"},
      {"A\\B\\anna", "anna"},
      {"OFFICE\\", ""},
      {"anna@corp.example", "anna"},
      {"a@b@c", "a"},
      {"anna", "anna"},
      {"", ""},
      {"@anna", "@anna"},
      {"@a@b", "@a@b"},
      {"\\anna", "\\anna"},
      {"\\anna@corp", "\\anna"},           // no domain before the backslash
      {"OFFICE\\anna@corp", "anna@corp"},  // the backslash counts alone
      {"anna@corp\\x", "x"},
  };
  for (const auto &[name, account] : cases) EXPECT_EQ(TrimDomainName(name), account);
}

// ---- ProcessEnvInit

using ProcessTest = UtilsTest;

const std::vector<unsigned> kOnce = {2}, kNever = {};

std::string ownPid() { return std::to_string(getpid()) + "\n"; }

// A running instance of the service: waits for SIGTERM, notes it and ends with 7.
pid_t startInstance() {
  int ready[2];
  EXPECT_EQ(pipe(ready), 0);
  const pid_t instance = startChild([&ready] {
    sigset_t end;
    sigemptyset(&end);
    sigaddset(&end, SIGTERM);
    sigprocmask(SIG_BLOCK, &end, nullptr);
    if (write(ready[1], "r", 1) != 1) return 1;
    int signal = 0;
    if (sigwait(&end, &signal) != 0 || signal != SIGTERM) return 2;
    writeFile(kFolder + "noted", "SIGTERM");
    return 7;
  });
  close(ready[1]);
  char byte;
  EXPECT_EQ(read(ready[0], &byte, 1), 1);
  close(ready[0]);
  return instance;
}

TEST_F(ProcessTest, AnOldInstanceIsEndedAndThePidFileReplaced) {
  const pid_t old = startInstance();
  const std::string oldText = std::to_string(old) + "\n";
  writeFile(kPidFile, oldText);
  whileSleeping = [&] {  // it has two seconds for this
    EXPECT_EQ(endOf(old), 7 << 8);
    EXPECT_EQ(readFile(kFolder + "noted"), "SIGTERM");
    EXPECT_EQ(readFile(kPidFile), oldText);
  };
  EXPECT_EQ(ProcessEnvInit(kPidFile.c_str(), true, false), 0);
  EXPECT_EQ(slept, kOnce);
  EXPECT_EQ(readFile(kPidFile), ownPid());
}

TEST_F(ProcessTest, AnInstanceThatIsGoneIsNoFailure) {
  const pid_t gone = startChild([] { return 0; });
  ASSERT_EQ(endOf(gone), 0);
  writeFile(kPidFile, std::to_string(gone) + "\n");
  EXPECT_EQ(ProcessEnvInit(kPidFile.c_str(), true, false), 0);
  EXPECT_EQ(slept, kOnce);
  EXPECT_EQ(readFile(kPidFile), ownPid());
}

TEST_F(ProcessTest, WithoutAnInstanceNothingIsEndedOrAwaited) {
  EXPECT_EQ(ProcessEnvInit(kPidFile.c_str(), true, false), 0);
  EXPECT_EQ(readFile(kPidFile), ownPid());
  for (const char *text : {"", "0\n", "-1\n", "no number\n"}) {
    writeFile(kPidFile, text);
    EXPECT_EQ(ProcessEnvInit(kPidFile.c_str(), true, false), 0) << text;
    EXPECT_EQ(readFile(kPidFile), ownPid());
  }
  EXPECT_EQ(slept, kNever);
}

TEST_F(ProcessTest, TheLowestProcessNumberIsOne) {
  writeFile(kPidFile, "1\n");
  EXPECT_EQ(ProcessEnvInit(kPidFile.c_str(), true, false), 0);
  EXPECT_EQ(killed, std::vector<pid_t>{1});
  EXPECT_EQ(slept, kOnce);
}

TEST_F(ProcessTest, ThePidFileIsANewOne) {
  writeFile(kFolder + "elsewhere", "0\n");
  ASSERT_EQ(symlink((kFolder + "elsewhere").c_str(), kPidFile.c_str()), 0);
  EXPECT_EQ(ProcessEnvInit(kPidFile.c_str(), true, false), 0);
  EXPECT_EQ(readFile(kPidFile), ownPid());
  EXPECT_EQ(readFile(kFolder + "elsewhere"), "0\n");
}

TEST_F(ProcessTest, APidFileThatCannotBeWrittenIsAFailure) {
  EXPECT_EQ(ProcessEnvInit((kFolder + "missing/service.pid").c_str(), true, false), -1);
  ASSERT_EQ(mkdir((kFolder + "closed").c_str(), 0755), 0);
  writeFile(kFolder + "closed/service.pid", "0\n", 0444);
  ASSERT_EQ(chmod((kFolder + "closed").c_str(), 0555), 0);
  EXPECT_EQ(ProcessEnvInit((kFolder + "closed/service.pid").c_str(), true, false), -1);
  EXPECT_EQ(readFile(kFolder + "closed/service.pid"), "0\n");
  EXPECT_EQ(chmod((kFolder + "closed").c_str(), 0755), 0);
}

TEST_F(ProcessTest, AFailedDetachLeavesThePidFileAlone) {
  const pid_t old = startInstance();
  const std::string oldText = std::to_string(old) + "\n";
  writeFile(kPidFile, oldText);
  daemonFails = true;
  EXPECT_EQ(ProcessEnvInit(kPidFile.c_str(), false, false), -1);
  EXPECT_EQ(slept, kOnce);  // the old instance has been told before
  EXPECT_EQ(endOf(old), 7 << 8);
  EXPECT_EQ(readFile(kPidFile), oldText);
}

std::string targetOf(const std::string &link) {
  char target[4096];
  const ssize_t length = readlink(link.c_str(), target, sizeof target);
  return length < 0 ? "none" : std::string(target, static_cast<size_t>(length));
}

std::string streams() {
  std::string text;
  for (const char *descriptor : {"0", "1", "2"})
    text += targetOf(std::string("/proc/self/fd/") + descriptor) + " ";
  return text;
}

// What a process finds around it.
std::string surroundings(int result) {
  std::ostringstream text;
  text << "result " << result << "\nleader " << (getsid(0) == getpid()) << "\nin "
       << targetOf("/proc/self/cwd") << "\npid file "
       << (readFile(kPidFile) == ownPid() ? "own" : "another's") << "\nstreams "
       << streams() << "\n";
  return text.str();
}

// What the process that ProcessEnvInit() leaves in the background finds.
std::string inBackground(bool keepDescriptors) {
  int report[2];
  EXPECT_EQ(pipe(report), 0);
  const pid_t started = startChild([&] {
    const std::string text =
        surroundings(ProcessEnvInit(kPidFile.c_str(), false, keepDescriptors));
    return write(report[1], text.data(), text.size()) > 0 ? 0 : 1;
  });
  close(report[1]);
  EXPECT_EQ(endOf(started), 0);  // the one that was started has gone by itself
  std::string text(4096, '\0');
  size_t length = 0;
  for (ssize_t n; (n = read(report[0], &text[length], text.size() - length)) > 0;)
    length += static_cast<size_t>(n);
  close(report[0]);
  return text.substr(0, length);
}

TEST_F(ProcessTest, InTheForegroundNothingElseChanges) {
  const std::string folder = targetOf("/proc/self/cwd"), before = streams();
  const pid_t session = getsid(0);
  EXPECT_EQ(ProcessEnvInit(kPidFile.c_str(), true, false), 0);
  EXPECT_EQ(targetOf("/proc/self/cwd"), folder);
  EXPECT_EQ(streams(), before);
  EXPECT_EQ(getsid(0), session);
}

TEST_F(ProcessTest, InTheBackgroundTheStreamsAreNull) {
  EXPECT_EQ(inBackground(false),
            "result 0\nleader 1\nin /\npid file own\n"
            "streams /dev/null /dev/null /dev/null \n");
}

TEST_F(ProcessTest, InTheBackgroundTheStreamsAreKeptWhenAsked) {
  const int null = open("/dev/zero", O_RDWR | O_CLOEXEC);  // what ctest gives differs
  const int saved = dup(STDIN_FILENO);
  ASSERT_EQ(dup2(null, STDIN_FILENO), STDIN_FILENO);
  EXPECT_EQ(inBackground(true),
            "result 0\nleader 1\nin /\npid file own\nstreams " + streams() + "\n");
  EXPECT_EQ(dup2(saved, STDIN_FILENO), STDIN_FILENO);
  close(saved);
  close(null);
}

// ---- IsSupportAntiVirus

TEST_F(UtilsTest, TheAntiVirusScannerNeeds384MiB) {
  unsigned long total = 0;
  machine = [&total](struct sysinfo *info) {
    *info = {};
    info->totalram = total;
    info->mem_unit = 4096;  // not looked at
    return 0;
  };
  const std::pair<unsigned long, bool> cases[] = {{0x17FFFFFF, false},
                                                  {0x18000000, true},
                                                  {0xFFFFFFFF, true},
                                                  {0x60000, false},
                                                  {0, false}};
  for (const auto &[memory, enough] : cases) {
    total = memory;
    EXPECT_EQ(IsSupportAntiVirus(), enough) << memory;
  }
}

TEST_F(UtilsTest, UnknownMemoryIsNotEnough) {
  machine = [](struct sysinfo *) {
    errno = EFAULT;
    return -1;
  };
  EXPECT_FALSE(IsSupportAntiVirus());
  expectLog({"utils.cpp: get sysinfo fail, Bad address"});
}

TEST_F(UtilsTest, ThisMachinesMemoryIsCompared) {
  struct sysinfo info;
  ASSERT_EQ(sysinfo(&info), 0);
  EXPECT_EQ(IsSupportAntiVirus(), info.totalram > 0x17FFFFFF);
}

// ---- GetValidMap

using ValidMap = std::map<std::string, bool>;

class ValidMapTest : public UtilsTest {
 protected:
  ValidMapTest() { writeDefaults(); }
};

unsigned long loginDefinition(const std::string &wanted, unsigned long otherwise) {
  std::ifstream in("/etc/login.defs");
  for (std::string line; std::getline(in, line);) {
    std::istringstream words(line);
    std::string name;
    unsigned long value;
    if (words >> name >> value && name == wanted) return value;
  }
  return otherwise;
}

// The machine's users whose number is a person's, as getent tells.
ValidMap localUsers() {
  const unsigned long first = loginDefinition("UID_MIN", 1000),
                      last = loginDefinition("UID_MAX", 60000);
  EXPECT_EQ(std::system(("getent passwd >" + kFolder + "passwd").c_str()), 0);
  ValidMap users;
  std::istringstream in(readFile(kFolder + "passwd"));
  for (std::string line; std::getline(in, line);) {
    std::istringstream fields(line);
    std::string name, password, number;
    std::getline(std::getline(std::getline(fields, name, ':'), password, ':'), number,
                 ':');
    const unsigned long id = std::stoul(number);
    if (id >= first && id <= last) users[name] = true;
  }
  return users;
}

// Stores an alias with one member; forgets what was logged and called for it.
void addAlias(const std::string &name) {
  Alias aliases;
  ASSERT_EQ(aliases.load(), 0);
  MemberInfo member;
  member.strName = "x";
  EXPECT_EQ(aliases.addMember(name, {member}), 0);
  EXPECT_EQ(aliases.save(), 0);
}

TEST_F(ValidMapTest, HoldsTheLocalUsersAndTheAliases) {
  addAlias("sales");
  addAlias("Sales");
  log.take();
  platform::takeCalls();
  ValidMap expected = localUsers();
  for (const char *alias : {"root", "sales", "Sales"}) expected[alias] = true;
  EXPECT_EQ(GetValidMap(), expected);
  EXPECT_EQ(callsOf({"KLIBCSzListAlloc", "KESTUserEnum"}),
            (Texts{"KLIBCSzListAlloc 512", "KESTUserEnum 1"}));
}

TEST_F(ValidMapTest, ANameThatIsUserAndAliasOccursOnce) {
  const ValidMap users = localUsers();
  for (const auto &[user, isTrue] : users) addAlias(user);
  addAlias("sales");
  log.take();
  ValidMap expected = users;
  for (const char *alias : {"root", "sales"}) expected[alias] = true;
  EXPECT_EQ(GetValidMap(), expected);
}

TEST_F(ValidMapTest, WithoutMemoryForTheUsersItIsEmpty) {
  addAlias("sales");
  log.take();
  platform::failCall("KLIBCSzListAlloc");
  platform::takeCalls();
  EXPECT_EQ(GetValidMap(), ValidMap());
  expectLog({"utils.cpp: out of memory"});
  EXPECT_EQ(callsOf({"KESTUserEnum"}), Texts());
}

TEST_F(ValidMapTest, WhenTheUsersCannotBeListedItIsEmpty) {
  addAlias("sales");
  log.take();
  platform::failCall("KESTUserEnum");
  EXPECT_EQ(GetValidMap(), ValidMap());
  expectLog({"utils.cpp: fail to enum local user"});
}

TEST_F(ValidMapTest, AMachineWithoutUsersHasAliases) {
  addAlias("sales");
  log.take();
  platform::answerCall("KESTUserEnum", 0);
  EXPECT_EQ(GetValidMap(), (ValidMap{{"root", true}, {"sales", true}}));
}

TEST_F(ValidMapTest, WithoutSettingsThereAreNoAliases) {
  unlink(PackageTree::kSettings);
  EXPECT_EQ(GetValidMap(), localUsers());
  expectLog({"smtp.cpp: KLIBCFileGetPair fail", "alias.cpp: smtp setting load fail",
             "smtp.cpp: KLIBCFileGetPair fail"});
  EXPECT_FALSE(fileExists(kAliasDB));
}

TEST_F(ValidMapTest, AliasesThatCannotBeReadAreLeftOut) {
  writeFile(kAliasDB, std::string(8192, 'x'));
  EXPECT_EQ(GetValidMap(), localUsers());
}

}  // namespace

// ---- the system calls, in this program

#define REPLACED extern "C" __attribute__((visibility("default")))

REPLACED unsigned sleep(unsigned seconds) {
  slept.push_back(seconds);
  if (whileSleeping) whileSleeping();
  return 0;
}

// The first process is not this test's to end.
REPLACED int kill(pid_t process, int signal) noexcept {
  killed.push_back(process);
  if (process == 1) return 0;
  return reinterpret_cast<int (*)(pid_t, int)>(dlsym(RTLD_NEXT, "kill"))(process, signal);
}

REPLACED int daemon(int noChdir, int noClose) {
  if (daemonFails) return -1;
  return reinterpret_cast<int (*)(int, int)>(dlsym(RTLD_NEXT, "daemon"))(noChdir,
                                                                         noClose);
}

REPLACED int sysinfo(struct sysinfo *info) noexcept {
  if (machine) return machine(info);
  return reinterpret_cast<int (*)(struct sysinfo *)>(dlsym(RTLD_NEXT, "sysinfo"))(info);
}
