// postwell relay show|set, and that the password is nowhere to be seen.

#include <gtest/gtest.h>
#include <kestcore.h>
#include <sys/stat.h>

#include "programs/postwell_settings_test.h"

namespace {

class PostwellRelay : public PostwellSettingsTest {
 protected:
  PostwellRelay() : PostwellSettingsTest("relay") {}

  // What the settings file stores, decrypted as the daemons' side does it.
  static std::string storedPassword() {
    char stored[1024], plain[1024];
    EXPECT_GE(KLIBCFileGetKeyValue(PackageTree::kSettings, "smtp_relay_password", stored,
                                   sizeof stored, 0),
              0);
    EXPECT_NE(KLIBCryptSzDecrypt(stored, plain, sizeof plain), 0);
    return plain;
  }
};

TEST_F(PostwellRelay, Show) {
  const Outcome outcome = show();
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out,
            "enabled           yes\n"
            "server            relay.example.org\n"
            "port              587\n"
            "tls               yes\n"
            "auth              yes\n"
            "account           bob\n");
}

TEST_F(PostwellRelay, ShowJson) {
  const Outcome outcome = show({"--json"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out,
            "{\n"
            "  \"enabled\": true,\n"
            "  \"server\": \"relay.example.org\",\n"
            "  \"port\": 587,\n"
            "  \"tls\": true,\n"
            "  \"auth\": true,\n"
            "  \"account\": \"bob\"\n"
            "}\n");
}

TEST_F(PostwellRelay, MissingSettings) {
  ASSERT_EQ(unlink(PackageTree::kSettings), 0);
  for (const Outcome &outcome : {show(), set({"--port", "26"})})
    expectNoSettings(outcome);
}

TEST_F(PostwellRelay, SetEveryOption) {
  expectSet({"--enabled", "no"}, {{"smtp_relay_enabled", "\"no\""}});
  expectSet({"--server", "smart.example.net"},
            {{"smtp_relay_server", "\"smart.example.net\""}});
  expectSet({"--server", "192.0.2.7"}, {{"smtp_relay_server", "\"192.0.2.7\""}});
  expectSet({"--server", "2001:db8::7"}, {{"smtp_relay_server", "\"2001:db8::7\""}});
  expectSet({"--port", "0"}, {{"smtp_relay_server_port", "\"0\""}});
  expectSet({"--port", "65535"}, {{"smtp_relay_server_port", "\"65535\""}});
  expectSet({"--tls", "off"}, {{"smtp_relay_secure_conn", "\"no\""}});
  expectSet({"--auth", "no"}, {{"smtp_relay_auth_enabled", "\"no\""}});
  expectSet({"--account", "CORP\\bob \"b\" m\xc3\xbcller"},
            {{"smtp_relay_account", "\"CORP\\bob \"b\" m\xc3\xbcller\""}});
}

TEST_F(PostwellRelay, ServerAndPortAtOnce) {
  expectSet(
      {"--port", "26", "--server", "a.example"},
      {{"smtp_relay_server", "\"a.example\""}, {"smtp_relay_server_port", "\"26\""}});
}

TEST_F(PostwellRelay, SetMakesTheDaemonsFollowAndSaysSo) {
  EXPECT_EQ(set({"--port", "0"}).out,
            "Relay on, server relay.example.org, TLS on, account bob; "
            "Postfix and Dovecot follow.\n");
  EXPECT_EQ(package_.takeCalls(),
            (Arguments{"DaemonConfSet.sh smtp", "PostfixDaemon.sh restart",
                       "DovecotDaemon.sh restart"}));
  EXPECT_EQ(set({"--enabled", "no"}).out, "Relay off; Postfix and Dovecot follow.\n");
}

TEST_F(PostwellRelay, AConfirmationShowsNoHostileValue) {
  writeSettingsWith("smtp_relay_server", "\x1b[2J");
  const Outcome outcome = set({"--port", "26"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out,
            "Relay on, server \\x1b[2J port 26, TLS on, account bob; "
            "Postfix and Dovecot follow.\n");
}

TEST_F(PostwellRelay, WrongValuesAreRefused) {
  for (const char *server : {"[192.0.2.7]", "relay.example.org:25", "192.0.2.300", "::g",
                             "fe80::1%eth0", "a b", "a,b", "$myhostname", "-a"})
    expectRefused(
        {"--server", server},
        std::string("--server: must be a host name or an IP address, without brackets "
                    "or port, not \"") +
            server + "\"");
  for (const char *number : {"65536", "-1", "smtp"})
    expectRefused({"--port", number},
                  std::string("--port: must be a whole number from 0 to 65535, not \"") +
                      number + "\"");
  for (const char *option : {"--enabled", "--tls", "--auth"})
    expectRefused({option, "2"}, std::string(option) + ": must be yes or no, not \"2\"");
  for (const char *account : {" bob", "bob ", " "})
    expectRefused({"--account", account},
                  "--account: must not begin or end with a blank");
  expectRefused({"--account", "bob:x"}, "--account: must not hold a colon");
  for (const char *account : {"bob\n", "\tbob", "bo\x7f"})
    expectRefused({"--account", account},
                  "--account: must not hold a newline, NUL or other control character");
  expectRefused({"--account", "b\xff"}, "--account: must be UTF-8");
}

TEST_F(PostwellRelay, TheWholeMustMakeSense) {
  const std::string server = "a relay that is on needs a server; name it with --server";
  const std::string account = "authentication needs an account; name it with --account";
  expectRefused({"--server", ""}, server);
  expectRefused({"--account", ""}, account);
  expectSet({"--enabled", "no", "--server", ""},
            {{"smtp_relay_enabled", "\"no\""}, {"smtp_relay_server", "\"\""}});
  expectSet({"--auth", "no", "--account", ""},
            {{"smtp_relay_auth_enabled", "\"no\""}, {"smtp_relay_account", "\"\""}});
  package_.takeCalls();
  writeFile(PackageTree::kSettings, "");
  expectRefused({"--enabled", "yes"}, server);
  expectRefused({"--auth", "yes"}, account);
}

TEST_F(PostwellRelay, PasswordFromStdinOrFile) {
  EXPECT_EQ(set({"--password-stdin"}, "s3cret one").status, 0);
  EXPECT_EQ(storedPassword(), "s3cret one");
  EXPECT_EQ(set({"--password-stdin"}, " \"two\":\xc3\xbc\r\n").status, 0);
  EXPECT_EQ(storedPassword(), " \"two\":\xc3\xbc");
  writeFile("/tmp/password", std::string(215, 'x') + "\n", 0600);
  EXPECT_EQ(set({"--password-file", "/tmp/password"}).status, 0);
  EXPECT_EQ(storedPassword(), std::string(215, 'x'));
  EXPECT_EQ(set({"--password-stdin"}, "").status, 0);
  EXPECT_EQ(storedPassword(), "");
}

TEST_F(PostwellRelay, ThePasswordStaysWhenItIsNotNamed) {
  ASSERT_EQ(set({"--password-stdin"}, "s3cret").status, 0);
  ASSERT_EQ(set({"--port", "26"}).status, 0);
  ASSERT_EQ(RUN_TEST_PROGRAM({"smtp", "set", "--size-limit", "5"}).status, 0);
  EXPECT_EQ(storedPassword(), "s3cret");
}

TEST_F(PostwellRelay, WrongPasswordsAreRefused) {
  const std::string control =
      "the password must not hold a newline, NUL or other control character";
  const Arguments fromStdin{"--password-stdin"};
  expectRefused(fromStdin, "the password must have at most 215 bytes",
                std::string(216, 'x'));
  expectRefused(fromStdin, "the password must have at most 215 bytes",
                std::string(1 << 20, 'x'));
  expectRefused(fromStdin, "the password must not end with a blank", "x \n");
  expectRefused(fromStdin, control, "one\ntwo\n");
  expectRefused(fromStdin, control, "one\n\n");
  expectRefused(fromStdin, control, "x\t");
  expectRefused(fromStdin, control, std::string("a\0b", 3));
  expectRefused(fromStdin, "the password must be UTF-8", "x\xff");
  const Outcome typed =
      RUN_TEST_PROGRAM_ON_TERMINAL({"relay", "set", "--password-stdin"}, "secret\n");
  EXPECT_EQ(typed.status, 2);
  EXPECT_EQ(typed.err.rfind("postwell: --password-stdin: pipe the password in; a "
                            "terminal shows it\n",
                            0),
            0u)
      << typed.err;
  expectRefused({"--password-stdin", "--password-file", "/dev/null"},
                "--password-stdin excludes --password-file");
}

TEST_F(PostwellRelay, APasswordFileThatCannotBeRead) {
  for (const char *file : {"/tmp/nothing\x1b", "/tmp"}) {
    const Outcome outcome = set({"--password-file", file});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err,
              std::string("postwell: cannot read the password from ") +
                  (file == std::string("/tmp") ? file : "/tmp/nothing\\x1b") + "\n");
    EXPECT_EQ(readFile(PackageTree::kSettings), kSomeSettings);
  }
}

TEST_F(PostwellRelay, ThePasswordIsNowhereToBeSeen) {
  const std::string secret = "Xyzzy-s3cret";
  // A script of the save looks at what it can see of its caller.
  writeFile("/var/packages/Postwell/target/scripts/DaemonConfSet.sh",
            "#!/bin/sh\ncat /proc/$PPID/cmdline /proc/$PPID/environ >/tmp/seen\nenv "
            ">>/tmp/seen\n",
            0755);
  const Outcome outcome = set({"--port", "26", "--password-stdin"}, secret + "\n");
  ASSERT_EQ(outcome.status, 0) << outcome.err;
  const std::string seen = readFile("/tmp/seen");
  EXPECT_NE(seen.find("--password-stdin"), std::string::npos) << "looked at nothing";
  const Outcome text = show();
  const Outcome json = show({"--json"});
  for (const std::string &place : {seen, outcome.out, outcome.err, text.out, text.err,
                                   json.out, json.err, readFile(PackageTree::kSettings)})
    EXPECT_EQ(place.find(secret), std::string::npos) << place;
  EXPECT_EQ(text.out.find("password"), std::string::npos);
  EXPECT_EQ(json.out.find("password"), std::string::npos);
}

TEST_F(PostwellRelay, ARefusedPasswordIsNotShown) {
  const Outcome outcome = set({"--password-stdin"}, "Xyzzy-s3cret\nmore");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.err.find("Xyzzy"), std::string::npos);
}

TEST_F(PostwellRelay, ALostPasswordCanBeSetAgain) {
  writeSettingsWith("smtp_relay_password", "sb1:of-another-machine");
  const Outcome shown = show();
  EXPECT_EQ(shown.status, 0);
  EXPECT_NE(shown.out.find("account           bob\n"), std::string::npos);

  const Outcome refused = set({"--port", "26"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("postwell relay set --password-stdin"), std::string::npos);
  EXPECT_EQ(settingsNow()["smtp_relay_server_port"], "\"587\"");

  const Keys before = settingsNow();
  const Outcome outcome = set({"--password-stdin", "--tls", "no"}, "s3cret");
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(storedPassword(), "s3cret");
  EXPECT_EQ(changedSince(before), (Keys{{"smtp_relay_secure_conn", "\"no\""}}));
}

TEST_F(PostwellRelay, AFailingScript) {
  package_.failScript("DaemonConfSet.sh", 1, "smtp");
  const Outcome outcome = set({"--port", "26"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err.rfind("postwell: the new settings are in the file, but", 0), 0u);
  EXPECT_EQ(settingsNow()["smtp_relay_server_port"], "\"26\"");
}

TEST_F(PostwellRelay, AKeyThatMayBeKnownStopsTheSave) {
  char stored[1024];
  ASSERT_EQ(KLIBCryptSzEncrypt("", stored, sizeof stored), 1);  // makes the key
  ASSERT_EQ(chmod("/usr/kest/etc/secret.key", 0644), 0);
  const Outcome outcome = set({"--password-stdin", "--port", "26"}, "s3cret");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(
      outcome.err.rfind("postwell: saving failed and the settings are not as wanted.", 0),
      0u)
      << outcome.err;
  EXPECT_EQ(settingsNow()["smtp_relay_server_port"], "\"587\"");
}

}  // namespace
