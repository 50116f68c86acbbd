// postwell personal show|set USER.
//
// As root the tool works for amy, a user of another uid; as an ordinary user the test is
// amy itself. Her files are read and made with her rights, which are no others in a home
// directory that root may not look into.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "programs/run_program.h"
#include "programs/settings.h"

namespace {

using Arguments = std::vector<std::string>;

constexpr char kHome[] = "/var/services/homes/amy";
constexpr char kForward[] = "/var/services/homes/amy/.forward";
constexpr char kReply[] = "/var/services/homes/amy/.vacation.msg";
constexpr char kReplied[] = "/var/services/homes/amy/.vacation.db";
constexpr char kPipe[] = "\"|/var/packages/Postwell/target/bin/vacation amy\"\n";
constexpr char kAllOff[] = "Mail for amy stays in the mailbox; vacation reply off.\n";

bool isRoot() { return getuid() == 0; }
uid_t uidOfAmy() { return isRoot() ? 1000 : getuid(); }

// While it lives the test has amy's rights.
class AsAmy {
 public:
  AsAmy() {
    EXPECT_EQ(setegid(isRoot() ? 1000 : getgid()), 0);
    EXPECT_EQ(seteuid(uidOfAmy()), 0);
  }
  ~AsAmy() {
    EXPECT_EQ(seteuid(getuid()), 0);
    EXPECT_EQ(setegid(getgid()), 0);
  }
  AsAmy(const AsAmy &) = delete;
  AsAmy &operator=(const AsAmy &) = delete;
};

// "(missing)" where nothing of the name is.
std::string hers(const std::string &path) {
  const AsAmy amy;
  struct stat status;
  return lstat(path.c_str(), &status) != 0 ? "(missing)" : readFile(path);
}

void sheWrites(const std::string &path, const std::string &text) {
  const AsAmy amy;
  writeFile(path, text);
}

class PostwellPersonal : public testing::Test {
 protected:
  PostwellPersonal() {
    useAccounts("local");
    const std::string amy = std::to_string(uidOfAmy());
    writeFile("/tmp/passwd", "root:x:0:0::/root:/bin/sh\namy:x:" + amy + ":" +
                                 (isRoot() ? amy : std::to_string(getgid())) +
                                 "::/home/amy:/bin/sh\n"
                                 "bob:x:1001:1001::/home/bob:/bin/sh\n"
                                 "amy lee:x:" +
                                 amy + ":1000::/nowhere:/bin/sh\nCORP\\Amy:x:" + amy +
                                 ":1000::" + kHome + ":/bin/sh\namy@corp.example:x:" +
                                 amy + ":1000::" + kHome + ":/bin/sh\n");
    EXPECT_EQ(system("cd /var/services/homes && { chown -f \"$(id -u)\" * && "
                     "chmod -f 700 *; rm -rf * /tmp/precious; }"),
              0);
    EXPECT_EQ(mkdir(kHome, 0700), 0);
    if (isRoot()) {
      EXPECT_EQ(chown(kHome, 1000, 1000), 0);
    }
  }

  static void useAccounts(const std::string &type) {
    writeSettingsWith("account_type", type);
  }

  static Outcome show(const Arguments &options = {}, const std::string &user = "amy") {
    return run("show", user, options, "");
  }
  static Outcome set(const Arguments &options, const std::string &input = "",
                     const std::string &user = "amy") {
    return run("set", user, options, input);
  }

  // The command is done and says this.
  static void expectDone(const Arguments &options, const std::string &out,
                         const std::string &input = "") {
    const Outcome outcome = set(options, input);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, out);
    EXPECT_EQ(outcome.err, "");
  }

  // The command ends with the status and the message, and the files are as they were.
  static void expectRefused(const Outcome &outcome, int status,
                            const std::string &message) {
    EXPECT_EQ(outcome.status, status) << outcome.err;
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err.rfind("postwell: " + message, 0), 0u) << outcome.err;
  }

  static void replyWith(const std::string &text) {
    expectDone({"--reply-subject", "Away", "--reply-file", "-"},
               "Mail for amy stays in the mailbox; vacation reply on.\n", text);
  }

  PackageTree package_;

 private:
  static Outcome run(const char *verb, const std::string &user, const Arguments &options,
                     const std::string &input) {
    Arguments words{"personal", verb, user};
    words.insert(words.end(), options.begin(), options.end());
    return RUN_TEST_PROGRAM(words, input);
  }
};

TEST_F(PostwellPersonal, ShowBeforeAnythingIsSet) {
  const Outcome outcome = show();
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out,
            "forward           (none)\n"
            "keep_copy         no\n"
            "reply             no\n"
            "reply_subject     (none)\n");
}

TEST_F(PostwellPersonal, ShowAll) {
  sheWrites(kForward, std::string("\\amy\n") + kPipe + "friend@outside.example\n");
  sheWrites(kReply, "From:\"amy\"\nSubject:Away\x1b\nBack on Monday.\n\n# 1\n");
  EXPECT_EQ(show().out,
            "forward           friend@outside.example\n"
            "keep_copy         yes\n"
            "reply             yes\n"
            "reply_subject     Away\\x1b\n"
            "\n"
            "Back on Monday.\n"
            "\n"
            "# 1\n");
  EXPECT_EQ(show({"--json"}).out,
            "{\n"
            "  \"forward\": \"friend@outside.example\",\n"
            "  \"keep_copy\": true,\n"
            "  \"reply\": true,\n"
            "  \"reply_subject\": \"Away\\u001b\",\n"
            "  \"reply_text\": \"Back on Monday.\\n\\n# 1\"\n"
            "}\n");
}

TEST_F(PostwellPersonal, ForwardOnly) {
  expectDone({"--forward", "friend@outside.example"},
             "Mail for amy goes to friend@outside.example; vacation reply off.\n");
  EXPECT_EQ(hers(kForward), "friend@outside.example\n");
  EXPECT_EQ(hers(kReply), "(missing)");
}

TEST_F(PostwellPersonal, ReplyOnlyAndAnewForEveryone) {
  sheWrites(kReplied, "everyone");
  replyWith("I am away.\r\n\r\nBack on Monday.\n\n");
  EXPECT_EQ(hers(kForward), std::string("\\amy\n") + kPipe);
  EXPECT_EQ(hers(kReply), "From:\"amy\"\nSubject:Away\nI am away.\n\nBack on Monday.\n");
  EXPECT_EQ(hers(kReplied), "(missing)");
}

TEST_F(PostwellPersonal, EverythingThenOneByOneOff) {
  replyWith("Back soon.");
  expectDone({"--forward", "friend@outside.example", "--keep-copy", "yes"},
             "Mail for amy goes to friend@outside.example, with a copy in the mailbox; "
             "vacation reply on.\n");
  EXPECT_EQ(hers(kForward), std::string("\\amy\n") + kPipe + "friend@outside.example\n");
  expectDone({"--keep-copy", "no"},
             "Mail for amy goes to friend@outside.example; vacation reply on.\n");
  EXPECT_EQ(hers(kForward), std::string(kPipe) + "friend@outside.example\n");
  expectDone({"--no-forward"}, "Mail for amy stays in the mailbox; vacation reply on.\n");
  EXPECT_EQ(hers(kForward), std::string("\\amy\n") + kPipe);
  expectDone({"--forward", "b@x.example"},
             "Mail for amy goes to b@x.example; vacation reply on.\n");
  expectDone({"--no-reply"}, "Mail for amy goes to b@x.example; vacation reply off.\n");
  EXPECT_EQ(hers(kForward), "b@x.example\n");
  EXPECT_EQ(hers(kReply), "(missing)");
  expectDone({"--no-forward", "--no-reply"}, kAllOff);
  EXPECT_EQ(hers(kForward), "(missing)");
}

TEST_F(PostwellPersonal, OffLeavesNoFile) {
  replyWith("Back soon.");
  sheWrites(kReplied, "someone");
  expectDone({"--forward", "friend@outside.example"},
             "Mail for amy goes to friend@outside.example; vacation reply on.\n");
  expectDone({"--off"}, kAllOff);
  for (const char *path : {kForward, kReply, kReplied})
    EXPECT_EQ(hers(path), "(missing)") << path;
  expectDone({"--off"}, kAllOff);
}

TEST_F(PostwellPersonal, WhatIsNotNamedStaysAsItIsBlankLinesAmongIt) {
  const std::string text = "  Dear all,\n\n# not a comment\n\tI am away\n\n\n-- \nAmy\n";
  replyWith(text);
  expectDone({"--reply-subject", "Fort \xc3\xbc"},
             "Mail for amy stays in the mailbox; vacation reply on.\n");
  expectDone({"--forward", "b@x.example"},
             "Mail for amy goes to b@x.example; vacation reply on.\n");
  EXPECT_EQ(hers(kReply), "From:\"amy\"\nSubject:Fort \xc3\xbc\n" + text);
}

TEST_F(PostwellPersonal, FilesAreTheUsersAlone) {
  replyWith("Back soon.");
  const AsAmy amy;
  for (const char *path : {kForward, kReply}) {
    struct stat status;
    ASSERT_EQ(stat(path, &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0600)) << path;
    EXPECT_EQ(status.st_uid, uidOfAmy());
  }
}

TEST_F(PostwellPersonal, TheTextIsReadWithTheUsersRights) {
  writeFile("/tmp/reply", "Back soon.\n", 0644);
  expectDone({"--reply-subject", "Away", "--reply-file", "/tmp/reply"},
             "Mail for amy stays in the mailbox; vacation reply on.\n");
  EXPECT_EQ(hers(kReply), "From:\"amy\"\nSubject:Away\nBack soon.\n");
  ASSERT_EQ(chmod("/tmp/reply", 0), 0);
  ASSERT_EQ(mkfifo("/tmp/pipe", 0666), 0);
  const auto refuse = [](const std::string &name, const std::string &shown,
                         const std::string &reason) {
    expectRefused(
        set({"--reply-file", name}), 1,
        "cannot read the reply from \"" + shown + "\" with the user's rights: " + reason +
            ";\none that only you can read is given as \"--reply-file - <FILE\"\n");
  };
  refuse("/tmp/missing\x1b", "/tmp/missing\\x1b", "No such file or directory");
  refuse("/tmp/reply", "/tmp/reply", "Permission denied");
  for (const char *name : {"/tmp", "/tmp/pipe"})
    refuse(name, name, "it is no file with text");
}

TEST_F(PostwellPersonal, FilesTooLargeForMemoryAreNotRead) {
  for (const char *path : {kForward, kReply}) {
    sheWrites(path, std::string((1 << 20) + 1, '\n'));
    for (const Outcome &outcome : {show(), set({"--off"})})
      expectRefused(outcome, 1, '"' + std::string(path) + "\" is larger than 1 MB");
    sheWrites(path, "");
  }
}

TEST_F(PostwellPersonal, OnlyOneMailAddressIsTakenForForwarding) {
  for (const char *address : {"",
                              "bob",
                              "|touch /tmp/owned",
                              "\"|touch /tmp/owned\"",
                              "/tmp/owned",
                              "\"/tmp/owned\"",
                              ":include:/tmp/list",
                              "a@x.example, b@x.example",
                              "a@x.example,b@x.example",
                              "a@x.example b@x.example",
                              "a@x.example\n|touch /tmp/owned",
                              "a@x.example\n",
                              "\\amy",
                              "\\amy@x.example",
                              "#a@x.example",
                              "\"a b\"@x.example",
                              "Amy <a@x.example>",
                              "<a@x.example>",
                              "a@x.example (c)",
                              "a@[127.0.0.1]",
                              "a@x.example\r",
                              "a@",
                              "@x.example",
                              "/a@x.example",
                              "~/a@x.example",
                              "|a@x.example",
                              "x/bin/vacation@x.example",
                              "a@b@x.example"})
    expectRefused(set({"--forward", address}), 2,
                  "--forward: must be one mail address such as bob@example.org, not \"");
  EXPECT_EQ(hers(kForward), "(missing)");
  EXPECT_FALSE(fileExists("/tmp/owned"));
}

TEST_F(PostwellPersonal, NobodyForwardsToHimself) {
  const std::string host = "mail.example.org";  // as in the settings
  const auto refuse = [](const std::string &address, const std::string &user = "amy") {
    expectRefused(set({"--forward", address}, "", user), 2,
                  '"' + address +
                      "\" is the user's own address here, to which nothing can be "
                      "forwarded;\nname another one with --forward, or --no-forward\n");
  };
  for (const char *name : {"amy@", "Amy@", "amy+away@"}) refuse(name + host);
  for (const char *address : {"amy@MAIL.example.org", "amy@localhost"}) refuse(address);
  EXPECT_EQ(hers(kForward), "(missing)");
  for (const char *address : {"amy@other.example", "bob@mail.example.org",
                              "amyx@mail.example.org", "x+amy@mail.example.org"})
    EXPECT_EQ(set({"--forward", address}).status, 0) << address;

  const std::string before = readFile(PackageTree::kSettings);
  writeFile(PackageTree::kSettings,
            before + "canonical_domain=\"A.example, other.example\"\n");
  refuse("amy@a.example");
  refuse("amy@other.example");
  useAccounts("win");
  refuse("amy@" + host, "CORP\\Amy");
  useAccounts("ldap");
  refuse("amy@" + host, "amy@corp.example");

  // not even when it was forwarded so before
  useAccounts("local");
  sheWrites(kForward, "amy\n");
  expectRefused(set({"--keep-copy", "yes"}), 2, "\"amy\" is the user's own address here");
  EXPECT_EQ(set({"--no-forward"}).status, 0);
}

TEST_F(PostwellPersonal, LettersOfAllScriptsAreShown) {
  const std::string subject =
                        "Zur\xc3\xbc"
                        "ck \xe2\x82\xac",
                    emoji = "\xf0\x9f\x93\xa7";
  expectDone({"--reply-subject", subject, "--reply-file", "-"},
             "Mail for amy stays in the mailbox; vacation reply on.\n",
             "Bis bald \xe2\x80\xae" + emoji + "\n\xd0\x9f\n");
  const std::string shown = show().out;
  EXPECT_NE(shown.find("reply_subject     " + subject + "\n\nBis bald \\xe2\\x80\\xae" +
                       emoji + "\n\xd0\x9f\n"),
            std::string::npos)
      << shown;
}

TEST_F(PostwellPersonal, SubjectsThatCannotStandInAHeader) {
  for (const std::string &subject :
       {std::string(), std::string(" Away"), std::string("Away "),
        std::string("A\nBcc: b"), std::string("A\rB"), std::string("A\x7f"),
        std::string("A\xff"), std::string(201, 'a')})
    expectRefused(set({"--reply-file", "-", "--reply-subject", subject}, "text"), 2,
                  "--reply-subject: must be 1 to 200 bytes of UTF-8 without control");
  expectDone({"--reply-subject", std::string(200, 'a'), "--reply-file", "-"},
             "Mail for amy stays in the mailbox; vacation reply on.\n", "text");
}

TEST_F(PostwellPersonal, TextsThatAreNone) {
  const auto refuse = [](const std::string &text, const std::string &problem) {
    expectRefused(set({"--reply-subject", "Away", "--reply-file", "-"}, text), 2,
                  "the text of the reply " + problem + "\n");
  };
  for (const char *text : {"", "\n\n", " \r\n\t\n"}) refuse(text, "must not be empty");
  for (const std::string &text :
       {std::string("a\0b", 3), std::string("\x1b[2J"), std::string("\xff")})
    refuse(text, "must be UTF-8 without control characters");
  refuse(std::string(65537, 'a'), "must have at most 65536 bytes");
  EXPECT_EQ(hers(kReply), "(missing)");
  replyWith(std::string(65536, 'a'));
}

TEST_F(PostwellPersonal, HalfAReplyIsRefused) {
  expectRefused(set({"--reply-subject", "Away"}), 2,
                "a vacation reply needs a text; name it with --reply-file\n");
  expectRefused(set({"--reply-file", "-"}, "Back soon."), 2,
                "a vacation reply needs a subject; name it with --reply-subject\n");
  // what was left behind by hand while no reply was on counts for nothing
  sheWrites(kReply, "Subject:Old\nold text\n");
  expectRefused(set({"--reply-subject", "Away"}), 2, "a vacation reply needs a text");
  EXPECT_EQ(hers(kForward), "(missing)");
}

TEST_F(PostwellPersonal, ACopyIsOnlyKeptOfForwardedMail) {
  expectRefused(set({"--keep-copy", "yes"}), 2,
                "only forwarded mail can be copied; name an address with --forward\n");
  expectDone({"--keep-copy", "no"}, kAllOff);
}

TEST_F(PostwellPersonal, WrongUsage) {
  expectRefused(set({}), 2, "name at least one setting\n");
  expectRefused(RUN_TEST_PROGRAM({"personal", "set", "--off"}), 2, "USER is required\n");
  expectRefused(RUN_TEST_PROGRAM({"personal", "show"}), 2, "USER is required\n");
  for (const Arguments &options :
       {Arguments{"--off", "--forward", "a@x.example"},
        Arguments{"--off", "--keep-copy=no"}, Arguments{"--off", "--reply-subject", "a"},
        Arguments{"--off", "--reply-file", "-"},
        Arguments{"--no-forward", "--forward", "a@x.example"},
        Arguments{"--no-forward", "--keep-copy", "yes"},
        Arguments{"--no-reply", "--reply-subject", "a"},
        Arguments{"--no-reply", "--reply-file", "-"}})
    expectRefused(set(options), 2, "--");
}

TEST_F(PostwellPersonal, UsersThatAreNone) {
  for (const char *user : {"nobody-here", "../amy", "..", "amy/", " ", ""}) {
    const std::string message = "there is no user \"" + std::string(user) + "\"\n";
    expectRefused(show({}, user), 1, message);
    expectRefused(set({"--off"}, "", user), 1, message);
  }
  expectRefused(show({}, "root"), 1, "\"root\" has all rights");
}

TEST_F(PostwellPersonal, AnOrdinaryUserHasOnlyHisOwn) {
  if (isRoot()) {  // who works for bob, but has no home of his to do so
    expectRefused(
        show({}, "bob"), 1,
        "the user cannot work in the home directory \"/var/services/homes/bob\": "
        "No such file or directory\n");
    return;
  }
  const std::string message = "only root may see or change the settings of other users\n";
  expectRefused(show({}, "bob"), 1, message);
  expectRefused(set({"--off"}, "", "bob"), 1, message);
}

TEST_F(PostwellPersonal, NamesThatTheMailSystemWouldMisread) {
  EXPECT_EQ(mkdir("/var/services/homes/amy lee", 0777), 0);
  EXPECT_EQ(chmod("/var/services/homes/amy lee", 0777), 0);
  EXPECT_EQ(show({}, "amy lee").status, 0);
  EXPECT_EQ(set({"--off"}, "", "amy lee").status, 0);
  expectRefused(set({"--forward", "a@x.example"}, "", "amy lee"), 2,
                "the mail system would take the name \"amy lee\" for an address or a "
                "command;\n");
}

TEST_F(PostwellPersonal, AccountsOfADomainAndADirectory) {
  for (const auto &[type, user] :
       {std::pair<std::string, std::string>{"win", "CORP\\Amy"},
        std::pair<std::string, std::string>{"ldap", "amy@corp.example"}}) {
    useAccounts(type);
    EXPECT_EQ(set({"--forward", "a@x.example", "--keep-copy", "yes"}, "", user).out,
              "Mail for " + user +
                  " goes to a@x.example, with a copy in the mailbox; vacation reply "
                  "off.\n");
    EXPECT_EQ(hers(kForward),
              std::string(type == "win" ? "\\Amy\n" : "\\amy\n") + "a@x.example\n");
    EXPECT_EQ(show({}, user).out.substr(0, 30), "forward           a@x.example\n");
    expectRefused(
        show({}, "amy"), 1,
        "\"amy\" is no name of an account of the type \"" + type + "\", which\n");
  }
}

TEST_F(PostwellPersonal, WithoutSettings) {
  ASSERT_EQ(unlink(PackageTree::kSettings), 0);
  expectNoSettings(show());
  expectNoSettings(set({"--off"}));
}

TEST_F(PostwellPersonal, AHomeThatCannotBeWrittenKeepsItsFiles) {
  sheWrites(kForward, "old@x.example\n");
  ASSERT_EQ(chmod(kHome, 0500), 0);
  expectRefused(set({"--forward", "new@x.example"}), 1,
                "the user cannot work in the home directory \"/var/services/homes/amy\": "
                "Permission denied\n");
  EXPECT_EQ(hers(kForward), "old@x.example\n");
  EXPECT_EQ(show().status, 0);
}

// The disk is full, say: mail must not go to half an address.
TEST_F(PostwellPersonal, WhatCannotBeWrittenWholeIsSwitchedOff) {
  const Outcome outcome =
      runNative("/bin/bash",
                {"-c", "trap '' XFSZ; ulimit -f 1; exec " TEST_SHELL_PROGRAM
                       " personal set amy --forward friend@outside.example"
                       " --reply-subject Away --reply-file -"},
                std::string(2000, 'a'));
  expectRefused(outcome, 1,
                "saving failed; the system log tells at which step.\n"
                "Forwarding and reply are off now, and mail stays in the mailbox.\n");
  EXPECT_EQ(hers(kForward), "(missing)");
  EXPECT_EQ(hers(kReply), "(missing)");
}

TEST_F(PostwellPersonal, ADirectoryOrPipeInPlaceOfAFile) {
  for (const char *path : {kForward, kReply}) {
    for (const bool isPipe : {false, true}) {
      {
        const AsAmy amy;
        ASSERT_EQ(isPipe ? mkfifo(path, 0600) : mkdir(path, 0700), 0);
      }
      const std::string message = "cannot read the settings of \"amy\": ";
      expectRefused(show(), 1, message);
      expectRefused(set({"--off"}), 1, message);
      expectRefused(set({"--forward", "a@x.example"}), 1, message);
      const AsAmy amy;
      ASSERT_EQ(isPipe ? unlink(path) : rmdir(path), 0);
    }
  }
}

// What she may not touch is not touched through a link of hers either.
TEST_F(PostwellPersonal, LinksLeadNoFurtherThanTheUsersOwnRights) {
  writeFile("/tmp/precious", "precious\n", isRoot() ? 0600 : 0400);
  for (const char *path : {kForward, kReply, kReplied}) {
    const AsAmy amy;
    ASSERT_EQ(symlink("/tmp/precious", path), 0);
  }
  if (isRoot()) {
    expectRefused(show(), 1, "cannot read the settings of \"amy\": ");
    expectRefused(set({"--off"}), 1, "cannot read the settings of \"amy\": ");
  } else {
    EXPECT_EQ(set({"--forward", "a@x.example"}).status, 0);
    EXPECT_EQ(hers(kForward), "a@x.example\n");
  }
  EXPECT_EQ(readFile("/tmp/precious"), "precious\n");
  struct stat status;
  ASSERT_EQ(stat("/tmp/precious", &status), 0);
  EXPECT_EQ(status.st_uid, getuid());
  EXPECT_EQ(status.st_mode & 07777, static_cast<mode_t>(isRoot() ? 0600 : 0400));
}

TEST_F(PostwellPersonal, AHardLinkIsReplacedAndItsOtherNameKept) {
  sheWrites("/var/services/homes/amy/other", "old@x.example\n");
  {
    const AsAmy amy;
    ASSERT_EQ(link("/var/services/homes/amy/other", kForward), 0);
  }
  expectDone({"--forward", "new@x.example"},
             "Mail for amy goes to new@x.example; vacation reply off.\n");
  EXPECT_EQ(hers("/var/services/homes/amy/other"), "old@x.example\n");
  EXPECT_EQ(hers(kForward), "new@x.example\n");
}

TEST_F(PostwellPersonal, ALinkInPlaceOfTheHomeLeadsToNobodyElses) {
  ASSERT_EQ(rmdir(kHome), 0);
  ASSERT_EQ(mkdir("/var/services/homes/bob", 0755), 0);
  if (!isRoot()) {
    ASSERT_EQ(chmod("/var/services/homes/bob", 0500), 0);
  }
  ASSERT_EQ(symlink("/var/services/homes/bob", kHome), 0);
  expectRefused(set({"--forward", "a@x.example"}), 1,
                "the user cannot work in the home directory");
  EXPECT_FALSE(fileExists("/var/services/homes/bob/.forward"));
}

}  // namespace
