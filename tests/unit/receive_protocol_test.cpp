#include "receive_protocol.h"

#include "support/files.h"
#include "support/library_test.h"

namespace {

using Calls = std::vector<std::string>;

const Calls kNoCalls;
const char kSettings[] = "/var/packages/Postwell/etc/postwell.conf";
const Protocol kAll[] = {POP3, POP3S, IMAP, IMAPS};

class ReceiveProtocolTest : public LibraryTest {};

TEST_F(ReceiveProtocolTest, EnumeratorsKeepTheirNumbers) {
  EXPECT_EQ(POP3, 0);
  EXPECT_EQ(POP3S, 1);
  EXPECT_EQ(IMAP, 2);
  EXPECT_EQ(IMAPS, 3);
}

TEST_F(ReceiveProtocolTest, FreshObjectHasAllFourDisabled) {
  ReceiveProtocol object;
  for (Protocol which : kAll) EXPECT_FALSE(object.getProtocol(which)) << which;
}

TEST_F(ReceiveProtocolTest, SetterChangesOneFlagInMemoryOnly) {
  writeDefaults();
  ReceiveProtocol object;
  object.setProtocol(IMAP, true);
  for (Protocol which : kAll)
    EXPECT_EQ(object.getProtocol(which), which == IMAP) << which;
  EXPECT_EQ(stored("imap_enabled"), "no");
  EXPECT_EQ(platform::takeCalls(), kNoCalls);
}

TEST_F(ReceiveProtocolTest, UnknownProtocolIsRememberedAsDisabled) {
  ReceiveProtocol object;
  const auto unknown = static_cast<Protocol>(7);
  EXPECT_FALSE(object.getProtocol(unknown));
  object.setProtocol(unknown, true);
  EXPECT_TRUE(object.getProtocol(unknown));
}

TEST_F(ReceiveProtocolTest, LoadReadsEachKeyIntoItsProtocol) {
  const char *const keys[] = {"pop3_enabled", "pop3s_enabled", "imap_enabled",
                              "imaps_enabled"};
  for (int on = 0; on < 4; on++) {
    std::string text;
    for (int i = 0; i < 4; i++)
      text += std::string(keys[i]) + (i == on ? "=\"yes\"\n" : "=\"no\"\n");
    writeFile(kSettings, text);
    ReceiveProtocol object;
    EXPECT_EQ(object.load(), 0);
    for (int i = 0; i < 4; i++)
      EXPECT_EQ(object.getProtocol(kAll[i]), i == on) << keys[on];
  }
}

TEST_F(ReceiveProtocolTest, OnlyTheExactWordYesIsTrue) {
  for (const char *value : {"Yes", "YES", "1", "true", "on", "", "yes ", "yess"}) {
    writeFile(kSettings, std::string("imap_enabled=\"") + value + "\"\n");
    ReceiveProtocol object;
    object.setProtocol(IMAP, true);
    EXPECT_EQ(object.load(), 0);
    EXPECT_FALSE(object.getProtocol(IMAP)) << value;
  }
}

TEST_F(ReceiveProtocolTest, AbsentKeyLeavesTheFlag) {
  writeFile(kSettings, "imap_enabled=\"no\"\n");
  ReceiveProtocol object;
  object.setProtocol(POP3, true);
  object.setProtocol(IMAP, true);
  EXPECT_EQ(object.load(), 0);
  EXPECT_TRUE(object.getProtocol(POP3));
  EXPECT_FALSE(object.getProtocol(IMAP));
  EXPECT_EQ(readFile(kSettings), "imap_enabled=\"no\"\n");
}

TEST_F(ReceiveProtocolTest, LoadOfAMissingFileFailsAndLeavesTheFlags) {
  ReceiveProtocol object;
  object.setProtocol(IMAPS, true);
  EXPECT_EQ(object.load(), -1);
  EXPECT_TRUE(object.getProtocol(IMAPS));
  EXPECT_FALSE(object.getProtocol(IMAP));
  expectLog({"receive_protocol.cpp: KLIBCFileGetPair fail"});
}

TEST_F(ReceiveProtocolTest, LoadOfAnUnreadableFileFails) {
  writeFile(kSettings, "imap_enabled=\"yes\"\n", 0);
  ReceiveProtocol object;
  EXPECT_EQ(object.load(), -1);
  EXPECT_FALSE(object.getProtocol(IMAP));
  expectLog({"receive_protocol.cpp: KLIBCFileGetPair fail"});
}

TEST_F(ReceiveProtocolTest, LoadWithoutMemoryForTheTableFails) {
  writeDefaults();
  platform::failCall("KLIBCSzHashAlloc");
  ReceiveProtocol object;
  EXPECT_EQ(object.load(), -1);
  expectLog({"receive_protocol.cpp: Out of memory"});
  EXPECT_EQ(platform::takeCalls(), Calls{"KLIBCSzHashAlloc 1024"});
}

// ---- save

TEST_F(ReceiveProtocolTest, SaveWritesConfiguresAndRestartsInThisOrder) {
  writeDefaults();
  ReceiveProtocol object;
  object.setProtocol(IMAPS, true);
  EXPECT_EQ(object.save(), 0);
  EXPECT_EQ(stored("pop3_enabled"), "no");
  EXPECT_EQ(stored("pop3s_enabled"), "no");
  EXPECT_EQ(stored("imap_enabled"), "no");
  EXPECT_EQ(stored("imaps_enabled"), "yes");
  EXPECT_EQ(
      platform::takeCalls(),
      (Calls{
          "KLIBCSzHashAlloc 1024",
          "KLIBCFileGetPair /var/packages/Postwell/etc/postwell.conf",
          "KLIBCSzHashAlloc 1024",
          "KLIBCFileSetKeys /var/packages/Postwell/etc/postwell.conf",
          "KLIBCExec /var/packages/Postwell/target/scripts/DaemonConfSet.sh protocol",
          "KLIBCExec /var/packages/Postwell/target/scripts/DovecotDaemon.sh restart"}));
  EXPECT_EQ(tree.takeCalls(),
            (Calls{"DaemonConfSet.sh protocol", "DovecotDaemon.sh restart"}));
}

TEST_F(ReceiveProtocolTest, SavedFlagsAreLoadedAgain) {
  writeDefaults();
  for (unsigned flags = 0; flags < 16; flags++) {
    ReceiveProtocol saved, loaded;
    for (Protocol which : kAll) saved.setProtocol(which, (flags >> which & 1u) != 0);
    ASSERT_EQ(saved.save(), 0);
    ASSERT_EQ(loaded.load(), 0);
    for (Protocol which : kAll)
      EXPECT_EQ(loaded.getProtocol(which), (flags >> which & 1u) != 0);
  }
}

TEST_F(ReceiveProtocolTest, SaveWithEveryProtocolOffWritesFourNoAndStillRestarts) {
  writeFile(kSettings, "");
  ReceiveProtocol object;
  EXPECT_EQ(object.save(), 0);
  EXPECT_EQ(readFile(kSettings),
            "pop3_enabled=\"no\"\npop3s_enabled=\"no\"\nimap_enabled=\"no\"\n"
            "imaps_enabled=\"no\"\n");
  EXPECT_EQ(tree.takeCalls(),
            (Calls{"DaemonConfSet.sh protocol", "DovecotDaemon.sh restart"}));
}

TEST_F(ReceiveProtocolTest, UnchangedSaveRestartsAllTheSame) {
  writeDefaults();
  ReceiveProtocol object;
  ASSERT_EQ(object.load(), 0);
  EXPECT_EQ(object.save(), 0);
  EXPECT_EQ(tree.takeCalls(),
            (Calls{"DaemonConfSet.sh protocol", "DovecotDaemon.sh restart"}));
}

TEST_F(ReceiveProtocolTest, SaveLeavesEverythingElseInTheFileUntouched) {
  const std::string others =
      "# by hand\nsmtp_port=\"2525\"\n\n  odd line = \nspam_enable=\"yes\"\n";
  writeFile(kSettings, "imap_enabled=\"no\"\n" + others);
  ReceiveProtocol object;
  object.setProtocol(IMAP, true);
  EXPECT_EQ(object.save(), 0);
  EXPECT_EQ(readFile(kSettings), "imap_enabled=\"yes\"\n" + others +
                                     "pop3_enabled=\"no\"\npop3s_enabled=\"no\"\n"
                                     "imaps_enabled=\"no\"\n");
}

TEST_F(ReceiveProtocolTest, SaveWithoutASettingsFileFailsFirstAndWritesNothing) {
  ReceiveProtocol object;
  EXPECT_EQ(object.save(), -1);
  expectLog({"receive_protocol.cpp: KLIBCFileGetPair fail",
             "receive_protocol.cpp: fail to load original setting"});
  EXPECT_FALSE(fileExists(kSettings));
  EXPECT_EQ(tree.takeCalls(), kNoCalls);
}

TEST_F(ReceiveProtocolTest, SaveWithoutMemoryForItsTableWritesNothing) {
  writeDefaults();
  platform::failCall("KLIBCSzHashAlloc", 2);  // the first is the original's
  ReceiveProtocol object;
  object.setProtocol(POP3, true);
  EXPECT_EQ(object.save(), -1);
  expectLog({"receive_protocol.cpp: Out of memory"});
  EXPECT_EQ(stored("pop3_enabled"), "no");
  EXPECT_EQ(tree.takeCalls(), kNoCalls);
}

TEST_F(ReceiveProtocolTest, SaveThatCannotSetAKeyWritesNothing) {
  for (int nth = 1; nth <= 4; nth++) {
    writeDefaults();
    ReceiveProtocol object;
    for (Protocol which : kAll) object.setProtocol(which, true);
    platform::failCall("KLIBCSzHashSetValue", nth);
    EXPECT_EQ(object.save(), -1);
    EXPECT_EQ(stored("imaps_enabled"), "no");
    expectLog({"receive_protocol.cpp: KLIBCFileSetKeys fail"});
    EXPECT_EQ(tree.takeCalls(), kNoCalls);
  }
}

TEST_F(ReceiveProtocolTest, SaveThatCannotWriteTouchesNoDaemon) {
  writeDefaults();
  platform::failCall("KLIBCFileSetKeys");
  ReceiveProtocol object;
  object.setProtocol(POP3, true);
  EXPECT_EQ(object.save(), -1);
  expectLog({"receive_protocol.cpp: KLIBCFileSetKeys fail"});
  EXPECT_EQ(stored("pop3_enabled"), "no");
  EXPECT_EQ(tree.takeCalls(), kNoCalls);
}

TEST_F(ReceiveProtocolTest, FailedConfigurationEndsTheSaveWithTheFileWritten) {
  writeDefaults();
  tree.failScript("DaemonConfSet.sh");
  ReceiveProtocol object;
  object.setProtocol(POP3, true);
  EXPECT_EQ(object.save(), -1);
  expectLog({"receive_protocol.cpp: Fail to set dovecot config"});
  EXPECT_EQ(stored("pop3_enabled"), "yes");
  EXPECT_EQ(tree.takeCalls(), Calls{"DaemonConfSet.sh protocol"});
}

TEST_F(ReceiveProtocolTest, FailedRestartIsReportedAfterEverythingElse) {
  writeDefaults();
  tree.failScript("DovecotDaemon.sh");
  ReceiveProtocol object;
  object.setProtocol(POP3, true);
  EXPECT_EQ(object.save(), -1);
  expectLog({"receive_protocol.cpp: Fail to restart dovecot service"});
  EXPECT_EQ(stored("pop3_enabled"), "yes");
  EXPECT_EQ(tree.takeCalls(),
            (Calls{"DaemonConfSet.sh protocol", "DovecotDaemon.sh restart"}));
}

// ---- the static operations

TEST_F(ReceiveProtocolTest, ServicePassesItsActionAndResultOn) {
  for (const char *action : {"start", "stop", "restart"}) {
    EXPECT_EQ(ReceiveProtocol::Service(action), 0);
    EXPECT_EQ(tree.takeCalls(), Calls{std::string("DovecotDaemon.sh ") + action});
  }
  tree.failScript("DovecotDaemon.sh", 3);
  EXPECT_LT(ReceiveProtocol::Service("start"), 0);
  for (const int result : {-7, 5}) {
    platform::answerCall("KLIBCExec", result);
    EXPECT_EQ(ReceiveProtocol::Service("start"), result);
    platform::answerCall("KLIBCExec", result);
    EXPECT_EQ(ReceiveProtocol::SetDovecotConfig(), result);
  }
}

TEST_F(ReceiveProtocolTest, SetDovecotConfigPassesItsResultOn) {
  EXPECT_EQ(ReceiveProtocol::SetDovecotConfig(), 0);
  EXPECT_EQ(tree.takeCalls(), Calls{"DaemonConfSet.sh protocol"});
  tree.failScript("DaemonConfSet.sh");
  EXPECT_LT(ReceiveProtocol::SetDovecotConfig(), 0);
}

}  // namespace
