// postwell smtp show|set.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "programs/postwell_settings_test.h"

namespace {

const Arguments kCallsOfASave = {"DaemonConfSet.sh smtp", "PostfixDaemon.sh restart",
                                 "DovecotDaemon.sh restart"};

class PostwellSmtp : public PostwellSettingsTest {
 protected:
  PostwellSmtp() : PostwellSettingsTest("smtp") {}
};

TEST_F(PostwellSmtp, Show) {
  const Outcome outcome = show();
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out,
            "enabled           yes\n"
            "account_type      ldap\n"
            "account_domain    corp.example\n"
            "auth              no\n"
            "lan_exempt        yes\n"
            "hostname          mail.example.org\n"
            "port              2525\n"
            "size_limit_mb     20\n"
            "restrict_sender   yes\n"
            "smtps             yes\n"
            "smtps_port        4650\n");
}

TEST_F(PostwellSmtp, ShowJson) {
  const Outcome outcome = show({"--json"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out,
            "{\n"
            "  \"enabled\": true,\n"
            "  \"account_type\": \"ldap\",\n"
            "  \"account_domain\": \"corp.example\",\n"
            "  \"auth\": false,\n"
            "  \"lan_exempt\": true,\n"
            "  \"hostname\": \"mail.example.org\",\n"
            "  \"port\": 2525,\n"
            "  \"size_limit_mb\": 20,\n"
            "  \"restrict_sender\": true,\n"
            "  \"smtps\": true,\n"
            "  \"smtps_port\": 4650\n"
            "}\n");
}

TEST_F(PostwellSmtp, ShowChangesNothing) {
  show();
  show({"--json"});
  EXPECT_EQ(readFile(PackageTree::kSettings), kSomeSettings);
  EXPECT_TRUE(package_.takeCalls().empty());
}

TEST_F(PostwellSmtp, EmptyFileShowsTheDefaults) {
  writeFile(PackageTree::kSettings, "");
  EXPECT_EQ(show().out,
            "enabled           no\n"
            "account_type      local\n"
            "account_domain    (none)\n"
            "auth              yes\n"
            "lan_exempt        no\n"
            "hostname          (none)\n"
            "port              25\n"
            "size_limit_mb     10\n"
            "restrict_sender   no\n"
            "smtps             no\n"
            "smtps_port        465\n");
}

TEST_F(PostwellSmtp, HostileValuesAreShownSafely) {
  writeSettingsWith("smtp_hostname", "\x1b]0;x\x07\x9b\xc2\x9b\x7f\xff\"");
  Outcome outcome = show();
  EXPECT_EQ(outcome.status, 0);
  EXPECT_NE(
      outcome.out.find("hostname          \\x1b]0;x\\x07\\x9b\\xc2\\x9b\\x7f\\xff\"\n"),
      std::string::npos)
      << outcome.out;
  outcome = show({"--json"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_NE(outcome.out.find("\"hostname\": "
                             "\"\\u001b]0;x\\u0007\\ufffd\\u009b\\u007f\\ufffd\\\"\",\n"),
            std::string::npos)
      << outcome.out;
}

TEST_F(PostwellSmtp, SetEveryOption) {
  expectSet({"--enabled", "no"}, {{"smtp_enabled", "\"no\""}});
  expectSet({"--account-type", "local"}, {{"account_type", "\"local\""}});
  expectSet({"--account-type", "win"}, {{"account_type", "\"win\""}});
  expectSet({"--account-domain", "a.example"}, {{"acc_domain_name", "\"a.example\""}});
  expectSet({"--account-domain", ""}, {{"acc_domain_name", "\"\""}});
  expectSet({"--auth", "yes"}, {{"smtp_auth_enabled", "\"yes\""}});
  expectSet({"--lan-exempt", "no"}, {{"smtp_ignore_lan_auth", "\"no\""}});
  expectSet({"--hostname", "mx1.example.net"},
            {{"smtp_hostname", "\"mx1.example.net\""}});
  expectSet({"--hostname", ""}, {{"smtp_hostname", "\"\""}});
  expectSet({"--port", "65535"}, {{"smtp_port", "\"65535\""}});
  expectSet({"--port", "010"}, {{"smtp_port", "\"10\""}});
  expectSet({"--size-limit", "0"}, {{"message_limit", "\"0\""}});
  expectSet({"--size-limit", "2047"}, {{"message_limit", "\"2047\""}});
  expectSet({"--restrict-sender", "no"}, {{"restrict_sender", "\"no\""}});
  expectSet({"--smtps", "no"}, {{"smtp_ssl_enabled", "\"no\""}});
  expectSet({"--smtps-port", "1"}, {{"smtps_port", "\"1\""}});
}

TEST_F(PostwellSmtp, TwoOptionsAtOnceAndTheEqualsForm) {
  expectSet({"--port=26", "--smtps", "no"},
            {{"smtp_port", "\"26\""}, {"smtp_ssl_enabled", "\"no\""}});
}

TEST_F(PostwellSmtp, WordsForYesAndNo) {
  for (const char *word : {"no", "off", "false", "No", "OFF"})
    expectSet({"--enabled", word}, {{"smtp_enabled", "\"no\""}});
  for (const char *word : {"yes", "on", "true", "YES"})
    expectSet({"--auth", word}, {{"smtp_auth_enabled", "\"yes\""}});
}

TEST_F(PostwellSmtp, SetMakesTheDaemonsFollow) {
  EXPECT_EQ(set({"--size-limit", "30"}).status, 0);
  EXPECT_EQ(package_.takeCalls(), kCallsOfASave);
  EXPECT_EQ(set({"--account-type", "local"}).status, 0);
  EXPECT_EQ(package_.takeCalls(),
            (Arguments{"kest_gen_login_map", "DaemonConfSet.sh smtp",
                       "PostfixDaemon.sh restart", "DovecotDaemon.sh restart"}));
  EXPECT_EQ(set({"--enabled", "no"}).status, 0);
  EXPECT_EQ(package_.takeCalls(),
            (Arguments{"DaemonConfSet.sh smtp", "PostfixDaemon.sh stop",
                       "DovecotDaemon.sh restart"}));
}

TEST_F(PostwellSmtp, SetSaysWhatNowHolds) {
  EXPECT_EQ(set({"--size-limit", "30"}).out,
            "SMTP on, port 2525, SMTPS port 4650; Postfix and Dovecot follow.\n");
  EXPECT_EQ(set({"--smtps", "no"}).out,
            "SMTP on, port 2525; Postfix and Dovecot follow.\n");
  EXPECT_EQ(set({"--enabled", "no"}).out, "SMTP off; Postfix and Dovecot follow.\n");
}

TEST_F(PostwellSmtp, WrongValuesAreRefused) {
  for (const char *word : {"maybe", "1", "", "y", "yes "})
    expectRefused({"--enabled", word},
                  std::string("--enabled: must be yes or no, not \"") + word + "\"");
  for (const char *option : {"--auth", "--lan-exempt", "--restrict-sender", "--smtps"})
    expectRefused({option, "2"}, std::string(option) + ": must be yes or no, not \"2\"");
  for (const char *option : {"--port", "--smtps-port"})
    for (const char *number : {"0", "65536", "-1", "25x", " 25", "+25", "0x19", "", "2.5",
                               "99999999999999999999"})
      expectRefused({option, number},
                    std::string(option) +
                        ": must be a whole number from 1 to 65535, not \"" + number +
                        "\"");
  for (const char *number : {"-1", "2048", "ten"})
    expectRefused(
        {"--size-limit", number},
        std::string("--size-limit: must be a whole number from 0 to 2047, not \"") +
            number + "\"");
  for (const char *type : {"", "Local", "nis"})
    expectRefused(
        {"--account-type", type},
        std::string("--account-type: must be local, ldap or win, not \"") + type + "\"");
}

TEST_F(PostwellSmtp, WrongNamesAreRefused) {
  const std::string label(63, 'a'), longLabel(64, 'a');
  for (const char *option : {"--hostname", "--account-domain"}) {
    for (const std::string &name :
         {std::string("-a.example"), std::string("a-.example"), std::string("a..example"),
          std::string("a.example."), std::string("a_b.example"), std::string("a b"),
          std::string("192.0.2.1"), std::string("m\xc3\xbcller.example"), longLabel,
          label + "." + label + "." + label + "." + label})
      expectRefused(
          {option, name},
          std::string(option) +
              ": must be a host or domain name such as mail.example.org, not \"" +
              (name[0] == 'm' ? "m\\xc3\\xbcller.example" : name) + "\"");
    expectRefused({option, "a\nsmtp_port=\"1\""},
                  std::string(option) +
                      ": must be a host or domain name such as mail.example.org, not "
                      "\"a\\x0asmtp_port=\"1\"\"");
  }
  expectSet({"--hostname", label + "." + label + ".x"},
            {{"smtp_hostname", "\"" + label + "." + label + ".x\""}});
}

TEST_F(PostwellSmtp, OneWrongValueStopsThemAll) {
  expectRefused({"--port", "26", "--hostname", "-"},
                "--hostname: must be a host or domain name such as mail.example.org, not "
                "\"-\"");
}

TEST_F(PostwellSmtp, PortsMustDiffer) {
  const std::string message = "; choose another with \"postwell smtp set --smtps-port\"";
  expectRefused({"--port", "4650"}, "SMTP and SMTPS cannot share port 4650" + message);
  expectRefused({"--smtps-port", "2525"},
                "SMTP and SMTPS cannot share port 2525" + message);
  expectSet({"--smtps", "no", "--port", "4650"},
            {{"smtp_port", "\"4650\""}, {"smtp_ssl_enabled", "\"no\""}});
  package_.takeCalls();
  // What stands in the file counts like what was set.
  writeSettingsWith("smtps_port", "2525");
  expectRefused({"--size-limit", "5"}, "SMTP and SMTPS cannot share port 2525" + message);
}

TEST_F(PostwellSmtp, PortsOfDovecotAreTaken) {
  const std::string message = "; choose another with \"postwell smtp set --port\"";
  const std::vector<std::tuple<std::string, std::string, int>> ports = {
      {"pop3_enabled", "POP3", 110},
      {"imap_enabled", "IMAP", 143},
      {"imaps_enabled", "IMAP over TLS", 993},
      {"pop3s_enabled", "POP3 over TLS", 995}};
  for (const auto &[key, name, number] : ports) {
    const std::string port = std::to_string(number);
    writeSettingsWith(key, "yes");
    expectRefused({"--port", port},
                  name + " and SMTP cannot share port " + port + message);
    expectRefused({"--smtps-port", port},
                  name + " and SMTPS cannot share port " + port +
                      "; choose another with \"postwell smtp set --smtps-port\"");
    writeSettingsWith(key, "no");
    EXPECT_EQ(set({"--port", port}).status, 0) << name;
    EXPECT_EQ(settingsNow()["smtp_port"], '"' + port + '"');
    package_.takeCalls();
  }
}

TEST_F(PostwellSmtp, AnyPortWhileItIsOff) {
  expectSet(
      {"--enabled", "no", "--port", "143", "--smtps-port", "143"},
      {{"smtp_enabled", "\"no\""}, {"smtp_port", "\"143\""}, {"smtps_port", "\"143\""}});
}

TEST_F(PostwellSmtp, MissingOrUnreadableSettings) {
  ASSERT_EQ(chmod(PackageTree::kSettings, 0), 0);
  for (int round = 0; round < 2; ++round) {
    for (const Outcome &outcome : {show(), show({"--json"}), set({"--port", "26"})})
      expectNoSettings(outcome);
    unlink(PackageTree::kSettings);
  }
  EXPECT_TRUE(package_.takeCalls().empty());
  EXPECT_FALSE(fileExists(PackageTree::kSettings));
}

TEST_F(PostwellSmtp, AFailingScript) {
  for (const char *script :
       {"DaemonConfSet.sh", "PostfixDaemon.sh", "DovecotDaemon.sh"}) {
    PackageTree fresh;
    writeFile(PackageTree::kSettings, kSomeSettings);
    fresh.failScript(script);
    const Outcome outcome = set({"--size-limit", "30"});
    EXPECT_EQ(outcome.status, 1) << script;
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(
        outcome.err,
        "postwell: the new settings are in the file, but the daemons may not follow "
        "them.\n"
        "Run as root. The system log, and lines above if there are any, tell which\n"
        "step failed; correct the cause and\nset them again.\n");
    EXPECT_EQ(settingsNow()["message_limit"], "\"30\"");
  }
}

TEST_F(PostwellSmtp, WhatAScriptSaysIsSeenAbove) {
  writeFile("/var/packages/Postwell/target/scripts/DaemonConfSet.sh",
            "#!/bin/sh\necho 'no certificate' >&2\nexit 1\n", 0755);
  const Outcome outcome = set({"--size-limit", "30"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err.rfind("no certificate\npostwell: the new settings", 0), 0u)
      << outcome.err;
}

TEST_F(PostwellSmtp, AFileThatCannotBeWritten) {
  ASSERT_EQ(chmod("/var/packages/Postwell/etc", 0555), 0);
  const Outcome outcome = set({"--size-limit", "30"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err,
            "postwell: saving failed and the settings are not as wanted.\n"
            "Run as root; the system log tells which step failed.\n");
  EXPECT_EQ(readFile(PackageTree::kSettings), kSomeSettings);
  EXPECT_TRUE(package_.takeCalls().empty());
  ASSERT_EQ(chmod("/var/packages/Postwell/etc", 0755), 0);
}

TEST_F(PostwellSmtp, ALostRelayPasswordIsNamed) {
  writeSettingsWith("smtp_relay_password", "sb1:of-another-machine");
  EXPECT_EQ(show().status, 0);
  const Outcome outcome = set({"--size-limit", "30"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(
      outcome.err,
      "postwell: the stored relay password cannot be decrypted, so nothing was changed.\n"
      "Only root can: run as root. If you did, it was made on another machine or "
      "changed\n"
      "by hand; set it again with \"postwell relay set --password-stdin\".\n");
  EXPECT_TRUE(package_.takeCalls().empty());
}

}  // namespace
