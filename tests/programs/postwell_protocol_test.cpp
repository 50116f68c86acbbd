// postwell protocol show|set.

#include <gtest/gtest.h>
#include <unistd.h>

#include "programs/postwell_settings_test.h"

namespace {

class PostwellProtocol : public PostwellSettingsTest {
 protected:
  PostwellProtocol() : PostwellSettingsTest("protocol") {}
};

TEST_F(PostwellProtocol, PortsOfPostfixAreTaken) {
  writeSettingsWith("smtps_port", "993");
  const std::string before = readFile(PackageTree::kSettings);
  const Outcome outcome = set({"--imaps", "yes"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.err,
            "postwell: IMAP over TLS and SMTPS cannot share port 993; choose another "
            "with \"postwell smtp set --smtps-port\"\n");
  EXPECT_EQ(readFile(PackageTree::kSettings), before);
  EXPECT_TRUE(package_.takeCalls().empty());
  EXPECT_EQ(set({"--pop3s", "yes"}).status, 0);
}

TEST_F(PostwellProtocol, Show) {
  const Outcome outcome = show();
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out,
            "pop3              yes\n"
            "pop3s             no\n"
            "imap              yes\n"
            "imaps             no\n");
}

TEST_F(PostwellProtocol, ShowJson) {
  EXPECT_EQ(show({"--json"}).out,
            "{\n"
            "  \"pop3\": true,\n"
            "  \"pop3s\": false,\n"
            "  \"imap\": true,\n"
            "  \"imaps\": false\n"
            "}\n");
}

TEST_F(PostwellProtocol, SetEveryOption) {
  expectSet({"--pop3", "no"}, {{"pop3_enabled", "\"no\""}});
  expectSet({"--pop3s", "on"}, {{"pop3s_enabled", "\"yes\""}});
  expectSet({"--imap", "false"}, {{"imap_enabled", "\"no\""}});
  expectSet({"--imaps", "yes"}, {{"imaps_enabled", "\"yes\""}});
  expectSet({"--imap", "no", "--imaps", "yes"},
            {{"imap_enabled", "\"no\""}, {"imaps_enabled", "\"yes\""}});
}

TEST_F(PostwellProtocol, SetMakesDovecotFollowAndSaysSo) {
  EXPECT_EQ(set({"--imaps", "yes"}).out,
            "POP3 on, POP3 over TLS off, IMAP on, IMAP over TLS on; Dovecot follows.\n");
  EXPECT_EQ(package_.takeCalls(),
            (Arguments{"DaemonConfSet.sh protocol", "DovecotDaemon.sh restart"}));
}

TEST_F(PostwellProtocol, WrongValuesAreRefused) {
  for (const char *option : {"--pop3", "--pop3s", "--imap", "--imaps"}) {
    const Outcome outcome = set({option, "perhaps"});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.err, std::string("postwell: ") + option +
                               ": must be yes or no, not \"perhaps\"\n"
                               "Run with --help for more information.\n");
  }
  EXPECT_EQ(readFile(PackageTree::kSettings), kSomeSettings);
  EXPECT_TRUE(package_.takeCalls().empty());
}

TEST_F(PostwellProtocol, MissingSettings) {
  ASSERT_EQ(unlink(PackageTree::kSettings), 0);
  for (const Outcome &outcome : {show(), set({"--imap", "no"})})
    expectNoSettings(outcome);
  EXPECT_FALSE(fileExists(PackageTree::kSettings));
}

TEST_F(PostwellProtocol, AFailingScript) {
  package_.failScript("DovecotDaemon.sh");
  const Outcome outcome = set({"--imap", "no"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err.rfind("postwell: the new settings are in the file, but", 0), 0u);
  EXPECT_EQ(settingsNow()["imap_enabled"], "\"no\"");
}

}  // namespace
