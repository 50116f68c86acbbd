// kest_sasl_passwd: the line of the password table, or nothing at all.

#include <gtest/gtest.h>
#include <kestcore.h>
#include <unistd.h>

#include "programs/postfix_config.h"
#include "programs/run_program.h"
#include "programs/settings.h"

namespace {

const std::string kNextHop = "[relay.example.org]:587";

class SaslPasswd : public testing::Test {
 protected:
  SaslPasswd() { store("bob", "s3cret"); }

  static void store(const std::string &account, const std::string &password) {
    char stored[1024];
    ASSERT_EQ(KLIBCryptSzEncrypt(password.c_str(), stored, sizeof stored), 1);
    writeFile(PackageTree::kSettings, "smtp_relay_account=\"" + account +
                                          "\"\nsmtp_relay_password=\"" + stored + "\"\n");
  }

  static Outcome run(const std::string &nextHop, const std::string &outPath = "") {
    return RUN_TEST_PROGRAM({nextHop}, "", outPath);
  }

  static void expectRefused(const std::string &nextHop, const std::string &message) {
    const Outcome outcome = run(nextHop);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "kest_sasl_passwd: " + message + "\n");
  }

  PackageTree package_;
};

TEST_F(SaslPasswd, PrintsTheLine) {
  for (const char *nextHop : {"[relay.example.org]", "[relay.example.org]:587", "[a]:1",
                              "[192.0.2.7]:65535", "[2001:db8::7]:25"}) {
    const Outcome outcome = run(nextHop);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, std::string(nextHop) + " bob:s3cret\n");
    EXPECT_EQ(outcome.err, "");
  }
}

TEST_F(SaslPasswd, PostfixReadsTheLineAsItIsMeant) {
  store("CORP\\b b", " p:\"w\" # \xc3\xbc");
  writePostfixConfig("/tmp", "compatibility_level = 3.6\n");
  writeFile("/tmp/table", run(kNextHop).out);
  const Outcome made = runNative("/usr/sbin/postmap", {"-c", "/tmp", "lmdb:/tmp/table"});
  ASSERT_EQ(made.status, 0) << made.err;
  const Outcome found =
      runNative("/usr/sbin/postmap", {"-c", "/tmp", "-q", kNextHop, "lmdb:/tmp/table"});
  EXPECT_EQ(found.out, "CORP\\b b: p:\"w\" # \xc3\xbc\n");
}

TEST_F(SaslPasswd, WithoutAPassword) {
  const std::string message =
      "no relay password is set (postwell relay set --password-stdin)";
  store("bob", "");
  expectRefused(kNextHop, message);
  writeFile(PackageTree::kSettings,
            "smtp_relay_account=\"bob\"\nsmtp_relay_password=\"\"\n");
  expectRefused(kNextHop, message);
  writeFile(PackageTree::kSettings, "smtp_relay_account=\"bob\"\n");
  expectRefused(kNextHop, message);
}

TEST_F(SaslPasswd, WrongUsage) {
  for (const std::vector<std::string> &arguments :
       {std::vector<std::string>{}, {kNextHop, kNextHop}}) {
    const Outcome outcome = RUN_TEST_PROGRAM(arguments);
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err,
              "usage: kest_sasl_passwd NEXTHOP\n"
              "  NEXTHOP is \"[host]\" or \"[host]:port\"\n");
  }
}

TEST_F(SaslPasswd, ANextHopThatIsNone) {
  for (const char *nextHop :
       {"", "relay.example.org", "[]", "[]:25", "[a", "a]", "[a]25", "[a]:", "[a]:0",
        "[a]:65536", "[a]:+1", "[a]:25 ", "[a]:25:25", "[a b]", "[[a]]", "[a]x[b]",
        "--help", "[192.0.2.300]", "[$x]"})
    expectRefused(nextHop, std::string("not \"[host]\" or \"[host]:port\": ") + nextHop);
  expectRefused("[a]\n[b]", "not \"[host]\" or \"[host]:port\": [a]\\x0a[b]");
}

TEST_F(SaslPasswd, ALoginThatWouldBreakTheTable) {
  const std::string control = " must not hold a newline, NUL or other control character";
  store("", "s3cret");
  expectRefused(kNextHop, "no relay account is set (postwell relay set --account …)");
  store("bob:x", "s3cret");
  expectRefused(kNextHop, "the relay account must not hold a colon");
  store(" bob", "s3cret");
  expectRefused(kNextHop, "the relay account must not begin or end with a blank");
  store("b\tb", "s3cret");
  expectRefused(kNextHop, "the relay account" + control);
  store("b\xff", "s3cret");
  expectRefused(kNextHop, "the relay account must be UTF-8");
  store("bob", "s3cret\n[other]:25 eve:x");
  expectRefused(kNextHop, "the relay password" + control);
  store("bob", "s3cret\r");
  expectRefused(kNextHop, "the relay password" + control);
  store("bob", "s3cret ");
  expectRefused(kNextHop, "the relay password must not end with a blank");
  store("bob", "s3cret\xc3");
  expectRefused(kNextHop, "the relay password must be UTF-8");
}

TEST_F(SaslPasswd, APasswordOfAnotherMachine) {
  writeFile(PackageTree::kSettings,
            "smtp_relay_account=\"bob\"\nsmtp_relay_password=\"s3cret in plain text\"\n");
  expectRefused(kNextHop,
                "the stored relay password cannot be decrypted; set it again "
                "(postwell relay set --password-stdin)");
}

TEST_F(SaslPasswd, MissingSettings) {
  ASSERT_EQ(unlink(PackageTree::kSettings), 0);
  expectRefused(kNextHop,
                "cannot read /var/packages/Postwell/etc/postwell.conf "
                "(run as root; is the package installed?)");
}

TEST_F(SaslPasswd, OutputThatCannotBeWritten) {
  const Outcome outcome = run(kNextHop, "/dev/full");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, "kest_sasl_passwd: cannot write the line to standard output\n");
}

}  // namespace
