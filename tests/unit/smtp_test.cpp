#include "smtp.h"

#include <climits>
#include <functional>
#include <map>
#include <regex>

#include "kestcore.h"
#include "receive_protocol.h"
#include "support/files.h"
#include "support/library_test.h"

namespace {

using Calls = std::vector<std::string>;

const Calls kNoCalls;
const char kSettings[] = "/var/packages/Postwell/etc/postwell.conf";
const char kPorts[] = "/usr/local/etc/services.d/postwell_port";
const char kSamba[] = "/usr/kest/etc/smb.conf";

// The password as the file has it, decrypted.
std::string storedPassword(const std::string &text) {
  char plain[4096];
  EXPECT_EQ(KLIBCryptSzDecrypt(text.c_str(), plain, sizeof plain), 1);
  return plain;
}

class SMTPTest : public LibraryTest {
 protected:
  SMTPTest() { writeDefaults(); }

  // The steps of a save that reach outside the process.
  static Calls stepsTaken() {
    return callsOf(
        {"KLIBCFileSetKeys", "KLIBCFileSetSectionValue", "KLIBCExec", "KESTFwRuleHup"});
  }
};

// ---- defaults, setters, getters

TEST_F(SMTPTest, FreshObjectHasTheDefaults) {
  const SMTP smtp;
  EXPECT_FALSE(smtp.isEnabled());
  EXPECT_EQ(smtp.getAccountType(), "local");
  EXPECT_EQ(smtp.getAccDomainName(), "");
  EXPECT_TRUE(smtp.isSMTPAuthEnabled());
  EXPECT_FALSE(smtp.isSMTPIgnoreAuth());
  EXPECT_EQ(smtp.getHostName(), "");
  EXPECT_EQ(smtp.getSMTPPort(), 25);
  EXPECT_EQ(smtp.getMessageSizeLimit(), 10);
  EXPECT_FALSE(smtp.isRestrictSender());
  EXPECT_FALSE(smtp.isEnabledSMTPS());
  EXPECT_EQ(smtp.getSMTPsPort(), 465);
  EXPECT_FALSE(smtp.isRelayEnabled());
  EXPECT_EQ(smtp.getRelayServer(), "");
  EXPECT_EQ(smtp.getRelayServerPort(), 0);
  EXPECT_FALSE(smtp.isRelayAuthEnabled());
  EXPECT_FALSE(smtp.isSecureConnEnabled());
  EXPECT_EQ(smtp.getRelayAccount(), "");
}

// Every field at a value that is not its default.
void fill(SMTP &smtp) {
  smtp.setSMTP(true);
  smtp.setAccountType("ldap");
  smtp.setAccDomainName("corp.example");
  smtp.setSMTPAuth(false);
  smtp.setSMTPIgnoreAuth(true);
  smtp.setHostName("mail.example.com");
  smtp.setSMTPPort(2525);
  smtp.setMessageSizeLimit(64);
  smtp.setRestrictSender(true);
  smtp.setSMTPS(true);
  smtp.setSMTPsPort(4650);
  smtp.setRelay(true);
  smtp.setRelayServerInfo("relay.example.net", 587);
  smtp.setSecureConn(true);
  smtp.setRelayAuthEnable(true);
  smtp.setRelayAccount("smart@example.net");
  smtp.setRelayPassword("s3 cr\"et=%$\\");
}

void expectFilled(const SMTP &smtp) {
  EXPECT_TRUE(smtp.isEnabled());
  EXPECT_EQ(smtp.getAccountType(), "ldap");
  EXPECT_EQ(smtp.getAccDomainName(), "corp.example");
  EXPECT_FALSE(smtp.isSMTPAuthEnabled());
  EXPECT_TRUE(smtp.isSMTPIgnoreAuth());
  EXPECT_EQ(smtp.getHostName(), "mail.example.com");
  EXPECT_EQ(smtp.getSMTPPort(), 2525);
  EXPECT_EQ(smtp.getMessageSizeLimit(), 64);
  EXPECT_TRUE(smtp.isRestrictSender());
  EXPECT_TRUE(smtp.isEnabledSMTPS());
  EXPECT_EQ(smtp.getSMTPsPort(), 4650);
  EXPECT_TRUE(smtp.isRelayEnabled());
  EXPECT_EQ(smtp.getRelayServer(), "relay.example.net");
  EXPECT_EQ(smtp.getRelayServerPort(), 587);
  EXPECT_TRUE(smtp.isSecureConnEnabled());
  EXPECT_TRUE(smtp.isRelayAuthEnabled());
  EXPECT_EQ(smtp.getRelayAccount(), "smart@example.net");
}

TEST_F(SMTPTest, SettersChangeMemoryOnly) {
  const std::string before = readFile(kSettings);
  SMTP smtp;
  fill(smtp);
  expectFilled(smtp);
  EXPECT_EQ(readFile(kSettings), before);
  EXPECT_EQ(platform::takeCalls(), kNoCalls);
}

// Each switch on its own: its setter, its getter and its key.
const struct {
  const char *key;
  void (SMTP::*set)(bool) noexcept;
  bool (SMTP::*get)() const noexcept;
} kSwitches[] = {
    {"smtp_enabled", &SMTP::setSMTP, &SMTP::isEnabled},
    {"smtp_auth_enabled", &SMTP::setSMTPAuth, &SMTP::isSMTPAuthEnabled},
    {"smtp_ignore_lan_auth", &SMTP::setSMTPIgnoreAuth, &SMTP::isSMTPIgnoreAuth},
    {"restrict_sender", &SMTP::setRestrictSender, &SMTP::isRestrictSender},
    {"smtp_ssl_enabled", &SMTP::setSMTPS, &SMTP::isEnabledSMTPS},
    {"smtp_relay_enabled", &SMTP::setRelay, &SMTP::isRelayEnabled},
    {"smtp_relay_secure_conn", &SMTP::setSecureConn, &SMTP::isSecureConnEnabled},
    {"smtp_relay_auth_enabled", &SMTP::setRelayAuthEnable, &SMTP::isRelayAuthEnabled}};

TEST_F(SMTPTest, EachSwitchHasItsOwnSetterGetterAndKey) {
  for (const bool odd : {true, false}) {
    for (const auto &one : kSwitches) {
      SMTP smtp, loaded;
      for (const auto &other : kSwitches) (smtp.*other.set)(!odd);
      (smtp.*one.set)(odd);
      ASSERT_EQ(smtp.saveSMTPSetting(), 0);
      ASSERT_EQ(smtp.saveRelaySetting(), 0);
      ASSERT_EQ(loaded.load(), 0);
      for (const auto &other : kSwitches) {
        const bool expected = (&other == &one) == odd;
        EXPECT_EQ((smtp.*other.get)(), expected) << one.key << " " << other.key;
        EXPECT_EQ(stored(other.key), expected ? "yes" : "no")
            << one.key << " " << other.key;
        EXPECT_EQ((loaded.*other.get)(), expected) << one.key << " " << other.key;
      }
    }
  }
}

TEST_F(SMTPTest, CopiesAreIndependentAndWhole) {
  SMTP original;
  fill(original);
  SMTP copy = original;
  original.setHostName("other.example");
  original.setRelayServerInfo("other.example", 1);
  expectFilled(copy);
  const SMTP moved = std::move(copy);
  expectFilled(moved);
}

TEST_F(SMTPTest, SavedSettingsAreLoadedAgain) {
  SMTP saved, loaded;
  fill(saved);
  ASSERT_EQ(saved.save(), 0);
  ASSERT_EQ(loaded.load(), 0);
  expectFilled(loaded);
}

// ---- load

TEST_F(SMTPTest, LoadReadsTheFileTwiceAndRunsNothing) {
  SMTP smtp;
  EXPECT_EQ(smtp.load(), 0);
  EXPECT_EQ(platform::takeCalls(),
            (Calls{"KLIBCSzHashAlloc 1024",
                   "KLIBCFileGetPair /var/packages/Postwell/etc/postwell.conf",
                   "KLIBCSzHashAlloc 1024",
                   "KLIBCFileGetPair /var/packages/Postwell/etc/postwell.conf",
                   "KLIBCryptSzDecrypt 4095"}));
}

TEST_F(SMTPTest, AbsentKeysLeaveTheFields) {
  writeFile(kSettings, "unrelated=\"1\"\n");
  SMTP smtp;
  fill(smtp);
  EXPECT_EQ(smtp.load(), 0);
  expectFilled(smtp);
  EXPECT_EQ(readFile(kSettings), "unrelated=\"1\"\n");
}

TEST_F(SMTPTest, AbsentAccountTypeLeavesEvenAnEmptyField) {
  writeFile(kSettings, "unrelated=\"1\"\n");
  SMTP smtp;
  smtp.setAccountType("");
  EXPECT_EQ(smtp.load(), 0);
  EXPECT_EQ(smtp.getAccountType(), "");
}

TEST_F(SMTPTest, EmptyValuesGiveEmptyTextZeroAndTheLocalAccountType) {
  writeFile(
      kSettings,
      "smtp_enabled=\"\"\naccount_type=\"\"\nacc_domain_name=\"\"\nsmtp_auth_enabled="
      "\"\"\n"
      "smtp_hostname=\"\"\nsmtp_port=\"\"\nmessage_limit=\"\"\nsmtps_port=\"\"\n"
      "smtp_relay_server=\"\"\nsmtp_relay_server_port=\"\"\nsmtp_relay_account=\"\"\n");
  SMTP smtp;
  fill(smtp);
  EXPECT_EQ(smtp.load(), 0);
  EXPECT_FALSE(smtp.isEnabled());
  EXPECT_EQ(smtp.getAccountType(), "local");
  EXPECT_EQ(smtp.getAccDomainName(), "");
  EXPECT_FALSE(smtp.isSMTPAuthEnabled());
  EXPECT_EQ(smtp.getHostName(), "");
  EXPECT_EQ(smtp.getSMTPPort(), 0);
  EXPECT_EQ(smtp.getMessageSizeLimit(), 0);
  EXPECT_EQ(smtp.getSMTPsPort(), 0);
  EXPECT_EQ(smtp.getRelayServer(), "");
  EXPECT_EQ(smtp.getRelayServerPort(), 0);
  EXPECT_EQ(smtp.getRelayAccount(), "");
}

TEST_F(SMTPTest, ABooleanWithACapitalOrANumberReadsAsFalse) {
  for (const char *value : {"Yes", "1", "on"}) {
    writeFile(kSettings, std::string("smtp_enabled=\"") + value + "\"\n");
    SMTP smtp;
    smtp.setSMTP(true);
    EXPECT_EQ(smtp.load(), 0);
    EXPECT_FALSE(smtp.isEnabled()) << value;
  }
}

TEST_F(SMTPTest, NumbersReadTheirLeadingDigitsAndStayWithinAnInt) {
  const struct {
    const char *text;
    int number;
  } cases[] = {{"587", 587},
               {"587/tcp", 587},
               {" 42 ", 42},
               {"-1", -1},
               {"abc", 0},
               {"0x19", 0},
               {"70000", 70000},
               {"99999999999", INT_MAX},
               {"-99999999999", INT_MIN},
               {"2147483647", INT_MAX}};
  for (const auto &c : cases) {
    writeFile(kSettings, std::string("smtp_port=\"") + c.text + "\"\n");
    SMTP smtp;
    EXPECT_EQ(smtp.load(), 0);
    EXPECT_EQ(smtp.getSMTPPort(), c.number) << c.text;
  }
}

TEST_F(SMTPTest, AnEmptyFileLoads) {
  writeFile(kSettings, "");
  SMTP smtp;
  EXPECT_EQ(smtp.load(), 0);
  EXPECT_EQ(smtp.getSMTPPort(), 25);
}

TEST_F(SMTPTest, MissingFileFailsTheLoadOnceAndLeavesTheDefaults) {
  unlink(kSettings);
  SMTP smtp;
  EXPECT_EQ(smtp.load(), -1);
  EXPECT_EQ(smtp.getAccountType(), "local");
  EXPECT_EQ(smtp.getSMTPPort(), 25);
  expectLog({"smtp.cpp: KLIBCFileGetPair fail"});  // the relay's half is not tried
}

TEST_F(SMTPTest, LoadWithoutMemoryForATableFails) {
  platform::failCall("KLIBCSzHashAlloc");
  SMTP smtp;
  EXPECT_EQ(smtp.load(), -1);
  expectLog({"smtp.cpp: Out of memory"});
  EXPECT_EQ(platform::takeCalls(), Calls{"KLIBCSzHashAlloc 1024"});
}

TEST_F(SMTPTest, FailedRelayHalfFailsTheLoadAfterTheFirstHalfIsRead) {
  writeFile(kSettings, "smtp_port=\"26\"\nsmtp_relay_server=\"r.example\"\n");
  for (const char *function : {"KLIBCSzHashAlloc", "KLIBCFileGetPair"}) {
    SMTP smtp;
    platform::failCall(function, 2);
    EXPECT_EQ(smtp.load(), -1);
    EXPECT_EQ(smtp.getSMTPPort(), 26);
    EXPECT_EQ(smtp.getRelayServer(), "");
  }
  expectLog({"smtp.cpp: Out of memory", "smtp.cpp: KLIBCFileGetPair fail"});
}

// ---- the relay password

TEST_F(SMTPTest, UndecryptablePasswordFailsTheLoadAfterTheOtherFields) {
  writeFile(kSettings,
            "smtp_relay_account=\"new\"\nsmtp_relay_password=\"in the clear\"\n");
  SMTP smtp;
  EXPECT_EQ(smtp.load(), -1);
  EXPECT_EQ(smtp.getRelayAccount(), "new");
  expectLog({"smtp.cpp: KLIBCryptSzDecrypt fail"});
}

TEST_F(SMTPTest, UndecryptablePasswordLeavesTheOneInMemory) {
  SMTP smtp;
  smtp.setRelayPassword("kept");
  writeFile(kSettings, "smtp_relay_password=\"in the clear\"\n");
  EXPECT_EQ(smtp.load(), -1);
  expectLog({"smtp.cpp: KLIBCryptSzDecrypt fail"});
  ASSERT_EQ(smtp.saveRelaySetting(), 0);
  EXPECT_EQ(storedPassword(stored("smtp_relay_password")), "kept");
}

TEST_F(SMTPTest, AbsentPasswordKeyLeavesThePasswordInMemory) {
  SMTP smtp;
  smtp.setRelayPassword("kept");
  writeFile(kSettings, "smtp_relay_account=\"new\"\n");
  ASSERT_EQ(smtp.load(), 0);
  ASSERT_EQ(smtp.saveRelaySetting(), 0);
  EXPECT_EQ(storedPassword(stored("smtp_relay_password")), "kept");
}

TEST_F(SMTPTest, AbsentPasswordKeyIsNoFailure) {
  writeFile(kSettings, "smtp_relay_account=\"new\"\n");
  SMTP smtp;
  EXPECT_EQ(smtp.load(), 0);
  EXPECT_EQ(callsOf({"KLIBCryptSzDecrypt"}), kNoCalls);
}

TEST_F(SMTPTest, PasswordIsStoredEncryptedOnly) {
  SMTP smtp;
  smtp.setRelayPassword("geheim-4711");
  EXPECT_EQ(smtp.saveRelaySetting(), 0);
  EXPECT_EQ(readFile(kSettings).find("geheim"), std::string::npos);
  EXPECT_EQ(storedPassword(stored("smtp_relay_password")), "geheim-4711");
}

TEST_F(SMTPTest, LoadedPasswordIsSavedAgain) {
  SMTP first, second;
  first.setRelayPassword("geheim-4711");
  ASSERT_EQ(first.saveRelaySetting(), 0);
  ASSERT_EQ(second.load(), 0);
  second.setRelayAccount("other");
  ASSERT_EQ(second.saveRelaySetting(), 0);
  EXPECT_EQ(storedPassword(stored("smtp_relay_password")), "geheim-4711");
}

TEST_F(SMTPTest, LongestPasswordIsKeptAndALongerOneFailsBeforeAnythingIsWritten) {
  SMTP smtp;
  const std::string longest(215, 'p');
  smtp.setRelayPassword(longest);
  ASSERT_EQ(smtp.saveRelaySetting(), 0);
  EXPECT_EQ(storedPassword(stored("smtp_relay_password")), longest);
  EXPECT_LT(stored("smtp_relay_password").size(), 345u);
  SMTP loaded;
  ASSERT_EQ(loaded.load(), 0);
  ASSERT_EQ(loaded.saveRelaySetting(), 0);
  EXPECT_EQ(storedPassword(stored("smtp_relay_password")), longest);

  const std::string before = readFile(kSettings);
  smtp.setRelay(true);
  smtp.setRelayPassword(longest + "p");
  EXPECT_EQ(smtp.saveRelaySetting(), -1);
  expectLog({"smtp.cpp: KLIBCryptSzEncrypt fail"});
  EXPECT_EQ(readFile(kSettings), before);
}

TEST_F(SMTPTest, PasswordIsNeverLogged) {
  SMTP smtp;
  smtp.setRelayPassword("geheim-4711");
  for (const char *function : {"KLIBCryptSzEncrypt", "KLIBCFileSetKeys"}) {
    platform::failCall(function);
    EXPECT_EQ(smtp.saveRelaySetting(), -1);
  }
  ASSERT_EQ(smtp.saveRelaySetting(), 0);
  platform::failCall("KLIBCryptSzDecrypt");
  EXPECT_EQ(smtp.load(), -1);
  const std::vector<LogLine> lines = log.take();
  EXPECT_EQ(lines.size(), 3u);
  for (const LogLine &line : lines)
    EXPECT_EQ(line.text.find("geheim"), std::string::npos) << line.text;
}

TEST_F(SMTPTest, FailedEncryptionLeavesTheRelayKeysUnchanged) {
  const std::string before = readFile(kSettings);
  SMTP smtp;
  fill(smtp);
  platform::failCall("KLIBCryptSzEncrypt");
  EXPECT_EQ(smtp.saveRelaySetting(), -1);
  expectLog({"smtp.cpp: KLIBCryptSzEncrypt fail"});
  EXPECT_EQ(readFile(kSettings), before);
}

TEST_F(SMTPTest, ValuesThatAFileCannotCarryAreRefusedWhole) {
  const std::string before = readFile(kSettings);
  SMTP smtp;
  smtp.setRelayPassword(std::string("a\0b", 3));
  EXPECT_EQ(smtp.saveRelaySetting(), -1);
  expectLog({"smtp.cpp: KLIBCryptSzEncrypt fail"});
  for (const std::string &value :
       {std::string("mail\nsmtp_enabled=\"yes"), std::string("mail\0x", 6)}) {
    SMTP other;
    other.setHostName(value);
    EXPECT_EQ(other.saveSMTPSetting(), -1);
    expectLog({"smtp.cpp: KLIBCFileSetKeys fail"});
    EXPECT_FALSE(fileExists(kPorts));
  }
  EXPECT_EQ(readFile(kSettings), before);
}

// ---- writing the two groups

TEST_F(SMTPTest, RelayGroupWritesAllSevenKeysAlsoWhenOff) {
  writeFile(kSettings, "smtp_port=\"26\"\n");
  SMTP smtp;
  EXPECT_EQ(smtp.saveRelaySetting(), 0);
  const std::string text = readFile(kSettings);
  EXPECT_EQ(text.substr(0, text.find("smtp_relay_password")),
            "smtp_port=\"26\"\nsmtp_relay_enabled=\"no\"\nsmtp_relay_server=\"\"\n"
            "smtp_relay_server_port=\"0\"\nsmtp_relay_secure_conn=\"no\"\n"
            "smtp_relay_auth_enabled=\"no\"\nsmtp_relay_account=\"\"\n");
  EXPECT_EQ(storedPassword(stored("smtp_relay_password")), "");
}

TEST_F(SMTPTest, RelayGroupFailures) {
  const std::string before = readFile(kSettings);
  SMTP smtp;
  fill(smtp);
  platform::failCall("KLIBCSzHashAlloc");
  EXPECT_EQ(smtp.saveRelaySetting(), -1);
  expectLog({"smtp.cpp: Out of memory"});
  platform::failCall("KLIBCFileSetKeys");
  EXPECT_EQ(smtp.saveRelaySetting(), -1);
  expectLog({"smtp.cpp: KLIBCFileSetKeys fail"});
  EXPECT_EQ(readFile(kSettings), before);
}

TEST_F(SMTPTest, SMTPGroupWritesItsTwelveKeysAndBothPorts) {
  writeFile(kSettings, "");
  SMTP smtp;
  fill(smtp);
  EXPECT_EQ(smtp.saveSMTPSetting(), 0);
  EXPECT_EQ(
      readFile(kSettings),
      "smtp_enabled=\"yes\"\naccount_type=\"ldap\"\nacc_domain_name=\"corp.example\"\n"
      "win_domain_short_name=\"\"\nsmtp_auth_enabled=\"no\"\nsmtp_ignore_lan_auth="
      "\"yes\"\n"
      "smtp_hostname=\"mail.example.com\"\nsmtp_port=\"2525\"\nmessage_limit=\"64\"\n"
      "restrict_sender=\"yes\"\nsmtp_ssl_enabled=\"yes\"\nsmtps_port=\"4650\"\n");
  EXPECT_EQ(
      readFile(kPorts),
      "[mail_smtp]\ndst.ports=\"2525/tcp\"\n[mail_smtps]\ndst.ports=\"4650/tcp\"\n");
}

TEST_F(SMTPTest, PortFileKeepsItsOtherSections) {
  writeFile(kPorts,
            "[web]\ndst.ports=\"80/tcp\"\n\n[mail_smtp]\ntitle=\"SMTP\"\ndst.ports=\"25/"
            "tcp\"\n");
  SMTP smtp;
  smtp.setSMTPPort(26);
  EXPECT_EQ(smtp.saveSMTPSetting(), 0);
  EXPECT_EQ(
      readFile(kPorts),
      "[web]\ndst.ports=\"80/tcp\"\n\n[mail_smtp]\ntitle=\"SMTP\"\ndst.ports=\"26/tcp\"\n"
      "[mail_smtps]\ndst.ports=\"465/tcp\"\n");
}

TEST_F(SMTPTest, WindowsAccountsStoreTheWorkgroupAsShortName) {
  writeFile(kSamba, "[global]\n\tworkgroup = OFFICE\n\trealm = OFFICE.EXAMPLE\n");
  SMTP smtp;
  smtp.setAccountType("win");
  EXPECT_EQ(smtp.saveSMTPSetting(), 0);
  EXPECT_EQ(stored("win_domain_short_name"), "OFFICE");
  smtp.setAccountType("local");
  EXPECT_EQ(smtp.saveSMTPSetting(), 0);
  EXPECT_EQ(stored("win_domain_short_name"), "");
}

TEST_F(SMTPTest,
       WindowsAccountsWithoutAReadableWorkgroupStoreAnEmptyShortNameAndSucceed) {
  SMTP smtp;
  smtp.setAccountType("win");
  EXPECT_EQ(smtp.saveSMTPSetting(), 0);  // no smb.conf
  EXPECT_EQ(stored("win_domain_short_name"), "");
  writeFile(kSamba, "[global]\n\trealm = OFFICE.EXAMPLE\n");
  EXPECT_EQ(smtp.saveSMTPSetting(), 0);  // no workgroup in it
  EXPECT_EQ(stored("win_domain_short_name"), "");
  writeFile(kSamba, "[global]\nworkgroup = OFFICE\n");
  platform::failCall("KLIBCFileGetSectionValue");
  EXPECT_EQ(smtp.saveSMTPSetting(), 0);
  EXPECT_EQ(stored("win_domain_short_name"), "");
  EXPECT_EQ(stored("account_type"), "win");
}

TEST_F(SMTPTest, WorkgroupOfUpTo127BytesIsTaken) {
  SMTP smtp;
  smtp.setAccountType("win");
  writeFile(kSamba, "[global]\nworkgroup = " + std::string(127, 'W') + "\n");
  EXPECT_EQ(smtp.saveSMTPSetting(), 0);
  EXPECT_EQ(stored("win_domain_short_name"), std::string(127, 'W'));
  writeFile(kSamba, "[global]\nworkgroup = " + std::string(128, 'W') + "\n");
  EXPECT_EQ(smtp.saveSMTPSetting(), 0);
  EXPECT_EQ(stored("win_domain_short_name"), "");
}

TEST_F(SMTPTest, OtherAccountTypesDoNotLookAtTheWorkgroup) {
  writeFile(kSamba, "[global]\nworkgroup = OFFICE\n");
  for (const char *type : {"local", "ldap", "WIN", ""}) {
    SMTP smtp;
    smtp.setAccountType(type);
    EXPECT_EQ(smtp.saveSMTPSetting(), 0);
    EXPECT_EQ(stored("win_domain_short_name"), "");
  }
  EXPECT_EQ(callsOf({"KLIBCFileGetSectionValue"}), kNoCalls);
}

TEST_F(SMTPTest, SMTPGroupFailsBeforeTheFileIsWritten) {
  const std::string before = readFile(kSettings);
  SMTP smtp;
  fill(smtp);
  platform::failCall("KLIBCSzHashAlloc");
  EXPECT_EQ(smtp.saveSMTPSetting(), -1);
  expectLog({"smtp.cpp: Out of memory"});
  platform::failCall("KLIBCFileSetKeys");
  EXPECT_EQ(smtp.saveSMTPSetting(), -1);
  expectLog({"smtp.cpp: KLIBCFileSetKeys fail"});
  EXPECT_EQ(readFile(kSettings), before);
  EXPECT_FALSE(fileExists(kPorts));
}

TEST_F(SMTPTest, AKeyThatCannotBeSetKeepsTheWholeGroupFromTheFile) {
  const std::string before = readFile(kSettings);
  SMTP smtp;
  fill(smtp);
  for (int nth = 1; nth <= 12; nth++) {
    platform::failCall("KLIBCSzHashSetValue", nth);
    EXPECT_EQ(smtp.saveSMTPSetting(), -1) << nth;
    expectLog({"smtp.cpp: KLIBCFileSetKeys fail"});
  }
  for (int nth = 1; nth <= 7; nth++) {
    platform::failCall("KLIBCSzHashSetValue", nth);
    EXPECT_EQ(smtp.saveRelaySetting(), -1) << nth;
    expectLog({"smtp.cpp: KLIBCFileSetKeys fail"});
  }
  EXPECT_EQ(readFile(kSettings), before);
}

TEST_F(SMTPTest, FailedSMTPPortLeavesTheSettingsWrittenAndTheSMTPSPortUntouched) {
  SMTP smtp;
  fill(smtp);
  platform::failCall("KLIBCFileSetSectionValue", 1);
  EXPECT_EQ(smtp.saveSMTPSetting(), -1);
  expectLog({"smtp.cpp: set smtp port in /usr/local/etc/services.d/postwell_port fail"});
  EXPECT_EQ(stored("smtp_port"), "2525");
  EXPECT_EQ(callsOf({"KLIBCFileSetSectionValue"}),
            Calls{"KLIBCFileSetSectionValue mail_smtp 2525"});
  EXPECT_FALSE(fileExists(kPorts));
}

TEST_F(SMTPTest, FailedSMTPSPortLeavesTheSMTPPortWritten) {
  SMTP smtp;
  fill(smtp);
  platform::failCall("KLIBCFileSetSectionValue", 2);
  EXPECT_EQ(smtp.saveSMTPSetting(), -1);
  expectLog({"smtp.cpp: set smtps in /usr/local/etc/services.d/postwell_port fail"});
  EXPECT_EQ(readFile(kPorts), "[mail_smtp]\ndst.ports=\"2525/tcp\"\n");
}

TEST_F(SMTPTest, SavingLeavesTheKeysOfOtherClassesAlone) {
  writeFile(kSettings, "# mail\npop3_enabled=\"yes\"\nspam_report_machanism=\"2\"\n");
  SMTP smtp;
  ASSERT_EQ(smtp.save(), 0);
  EXPECT_EQ(readFile(kSettings).find(
                "# mail\npop3_enabled=\"yes\"\nspam_report_machanism=\"2\"\n"),
            0u);
}

// ---- save: the order of the steps, and which of them run

const Calls kRestart = {
    "KLIBCFileSetKeys /var/packages/Postwell/etc/postwell.conf",
    "KLIBCFileSetSectionValue mail_smtp 25",
    "KLIBCFileSetSectionValue mail_smtps 465",
    "KLIBCFileSetKeys /var/packages/Postwell/etc/postwell.conf",
    "KLIBCExec /var/packages/Postwell/target/scripts/DaemonConfSet.sh smtp",
    "KLIBCExec /var/packages/Postwell/target/scripts/PostfixDaemon.sh restart",
    "KLIBCExec /var/packages/Postwell/target/scripts/DovecotDaemon.sh restart"};

TEST_F(SMTPTest, UnchangedSaveRestartsAlsoWhenSMTPIsAndStaysOff) {
  SMTP smtp;
  ASSERT_EQ(smtp.load(), 0);
  EXPECT_EQ(smtp.save(), 0);
  EXPECT_EQ(stepsTaken(), kRestart);
}

TEST_F(SMTPTest, ChangingOnlyTheRelayReconfiguresAndRestartsButDoesNotReloadTheFirewall) {
  SMTP smtp;
  ASSERT_EQ(smtp.load(), 0);
  smtp.setRelay(true);
  smtp.setRelayServerInfo("relay.example.net", 587);
  EXPECT_EQ(smtp.save(), 0);
  EXPECT_EQ(stepsTaken(), kRestart);
  EXPECT_EQ(stored("smtp_relay_server"), "relay.example.net");
}

TEST_F(SMTPTest, EveryStepInItsOrderWhenAllOfThemApply) {
  SMTP smtp;
  ASSERT_EQ(smtp.load(), 0);
  smtp.setSMTP(true);
  smtp.setRestrictSender(true);
  smtp.setSMTPPort(2525);
  EXPECT_EQ(smtp.save(), 0);
  EXPECT_EQ(
      stepsTaken(),
      (Calls{
          "KLIBCFileSetKeys /var/packages/Postwell/etc/postwell.conf",
          "KLIBCFileSetSectionValue mail_smtp 2525",
          "KLIBCFileSetSectionValue mail_smtps 465",
          "KLIBCFileSetKeys /var/packages/Postwell/etc/postwell.conf",
          "KLIBCExec /var/packages/Postwell/target/bin/kest_gen_login_map",
          "KLIBCExec /var/packages/Postwell/target/scripts/DaemonConfSet.sh smtp",
          "KESTFwRuleHup",
          "KLIBCExec /var/packages/Postwell/target/scripts/PostfixDaemon.sh start",
          "KLIBCExec /var/packages/Postwell/target/scripts/DovecotDaemon.sh restart"}));
  EXPECT_EQ(tree.takeCalls(),
            (Calls{"kest_gen_login_map", "DaemonConfSet.sh smtp",
                   "PostfixDaemon.sh start", "DovecotDaemon.sh restart"}));
}

TEST_F(SMTPTest, TheSwitchDecidesBetweenStartStopAndRestart) {
  const struct {
    bool before, after;
    const char *action;
  } cases[] = {{false, true, "start"},
               {true, true, "restart"},
               {true, false, "stop"},
               {false, false, "restart"}};
  for (const auto &c : cases) {
    writeFile(kSettings, c.before ? "smtp_enabled=\"yes\"\n" : "smtp_enabled=\"no\"\n");
    SMTP smtp;
    smtp.setSMTP(c.after);
    EXPECT_EQ(smtp.save(), 0);
    EXPECT_EQ(tree.takeCalls(),
              (Calls{"DaemonConfSet.sh smtp", std::string("PostfixDaemon.sh ") + c.action,
                     "DovecotDaemon.sh restart"}));
  }
}

TEST_F(SMTPTest, FirewallIsReloadedWhenEitherPortChanges) {
  const struct {
    int smtp, smtps;
    bool reload;
  } cases[] = {{25, 465, false}, {26, 465, true}, {26, 466, true}, {26, 466, false}};
  for (const auto &c : cases) {
    SMTP smtp;
    smtp.setSMTPPort(c.smtp);
    smtp.setSMTPsPort(c.smtps);
    EXPECT_EQ(smtp.save(), 0);
    EXPECT_EQ(!callsOf({"KESTFwRuleHup"}).empty(), c.reload) << c.smtp << " " << c.smtps;
  }
}

TEST_F(SMTPTest, LoginMapIsGeneratedOnlyWhenInForceAndItsInputsChanged) {
  using Change = std::function<void(SMTP &)>;
  const struct {
    const char *what;
    Change change;
    bool generated;
  } cases[] = {
      {"off and stays off", [](SMTP &) {}, false},
      {"account type changed while off", [](SMTP &s) { s.setAccountType("ldap"); },
       false},
      {"switched on", [](SMTP &s) { s.setRestrictSender(true); }, true},
      {"on and unchanged", [](SMTP &) {}, false},
      {"other settings changed", [](SMTP &s) { s.setHostName("h.example"); }, false},
      {"domain changed", [](SMTP &s) { s.setAccDomainName("d.example"); }, true},
      {"account type changed", [](SMTP &s) { s.setAccountType("local"); }, true},
      {"switched off", [](SMTP &s) { s.setRestrictSender(false); }, false},
      {"on again with the same inputs", [](SMTP &s) { s.setRestrictSender(true); }, true},
  };
  for (const auto &c : cases) {
    SMTP smtp;
    ASSERT_EQ(smtp.load(), 0);
    c.change(smtp);
    ASSERT_EQ(smtp.save(), 0);
    const Calls calls = tree.takeCalls();
    EXPECT_EQ(calls.front() == "kest_gen_login_map", c.generated) << c.what;
    EXPECT_EQ(calls.size(), c.generated ? 4u : 3u) << c.what;
  }
}

// ---- save: each failing step ends the sequence there

TEST_F(SMTPTest, SaveFailsFirstWhenThePreviousSettingsCannotBeLoaded) {
  unlink(kSettings);
  SMTP smtp;
  EXPECT_EQ(smtp.save(), -1);
  expectLog(
      {"smtp.cpp: KLIBCFileGetPair fail", "smtp.cpp: load orgin smtp setting fail"});
  EXPECT_EQ(stepsTaken(), kNoCalls);
  EXPECT_FALSE(fileExists(kSettings));
}

TEST_F(SMTPTest, SaveEndsWhenTheSMTPGroupCannotBeWritten) {
  platform::failCall("KLIBCFileSetKeys", 1);
  SMTP smtp;
  fill(smtp);
  EXPECT_EQ(smtp.save(), -1);
  expectLog({"smtp.cpp: KLIBCFileSetKeys fail", "smtp.cpp: save smtp setting fail"});
  EXPECT_EQ(stepsTaken().size(), 1u);
  EXPECT_EQ(stored("smtp_relay_enabled"), "no");
}

TEST_F(SMTPTest, SaveEndsWhenTheRelayGroupCannotBeWritten) {
  platform::failCall("KLIBCFileSetKeys", 2);
  SMTP smtp;
  fill(smtp);
  EXPECT_EQ(smtp.save(), -1);
  expectLog({"smtp.cpp: KLIBCFileSetKeys fail", "smtp.cpp: save relay setting fail"});
  EXPECT_EQ(stored("smtp_hostname"), "mail.example.com");  // what was written stays
  EXPECT_EQ(stored("smtp_relay_enabled"), "no");
  EXPECT_EQ(tree.takeCalls(), kNoCalls);
}

TEST_F(SMTPTest, SaveEndsWhenThePasswordCannotBeEncrypted) {
  platform::failCall("KLIBCryptSzEncrypt");
  SMTP smtp;
  fill(smtp);
  EXPECT_EQ(smtp.save(), -1);
  expectLog({"smtp.cpp: KLIBCryptSzEncrypt fail", "smtp.cpp: save relay setting fail"});
  EXPECT_EQ(stored("smtp_relay_account"), "");
  EXPECT_EQ(tree.takeCalls(), kNoCalls);
}

// The steps that run something, each made to fail: its message, and the scripts
// that ran up to it.
TEST_F(SMTPTest, SaveEndsAtTheStepThatFails) {
  const Calls all = {"kest_gen_login_map", "DaemonConfSet.sh smtp",
                     "PostfixDaemon.sh start", "DovecotDaemon.sh restart"};
  const struct {
    const char *script, *message;
    size_t ran;
  } cases[] = {{"kest_gen_login_map", "smtp.cpp: fail to generate login map", 1},
               {"DaemonConfSet.sh", "smtp.cpp: Fail to set postfix config", 2},
               {"PostfixDaemon.sh", "smtp.cpp: Fail to start postfix daemon", 3},
               {"DovecotDaemon.sh", "smtp.cpp: fail to restart dovecot service", 4}};
  for (const auto &c : cases) {
    const PackageTree fresh;
    writeDefaults();
    tree.failScript(c.script);
    platform::reset();
    SMTP smtp;
    fill(smtp);
    EXPECT_EQ(smtp.save(), -1);
    expectLog({c.message});
    EXPECT_EQ(tree.takeCalls(),
              Calls(all.begin(), all.begin() + static_cast<long>(c.ran)));
    EXPECT_EQ(callsOf({"KESTFwRuleHup"}).size(), c.ran >= 3 ? 1u : 0u);
    EXPECT_EQ(stored("smtp_hostname"), "mail.example.com");
    EXPECT_EQ(stored("smtp_relay_server"), "relay.example.net");
  }
}

TEST_F(SMTPTest, AnythingButANegativeResultIsSuccess) {
  SMTP smtp;
  smtp.setSMTPPort(26);
  platform::answerCall("KLIBCExec", 3);
  platform::answerCall("KESTFwRuleHup", 1);
  EXPECT_EQ(smtp.save(), 0);
}

// The file holds the new settings by then, so a second save finds nothing changed that
// the login map or the firewall would have to follow.
TEST_F(SMTPTest, SavingAgainAfterAFailureDoesNotRepeatTheStepsOfTheChange) {
  tree.failScript("kest_gen_login_map");
  SMTP smtp;
  fill(smtp);
  EXPECT_EQ(smtp.save(), -1);
  expectLog({"smtp.cpp: fail to generate login map"});
  tree.takeCalls();
  platform::takeCalls();
  EXPECT_EQ(smtp.save(), 0);
  EXPECT_EQ(tree.takeCalls(), (Calls{"DaemonConfSet.sh smtp", "PostfixDaemon.sh restart",
                                     "DovecotDaemon.sh restart"}));
  EXPECT_EQ(callsOf({"KESTFwRuleHup"}), kNoCalls);
}

TEST_F(SMTPTest, FailedStopAndRestartNameTheirAction) {
  writeFile(kSettings, "smtp_enabled=\"yes\"\n");
  tree.failScript("PostfixDaemon.sh");
  SMTP smtp;
  EXPECT_EQ(smtp.save(), -1);
  expectLog({"smtp.cpp: Fail to stop postfix daemon"});
  EXPECT_EQ(smtp.save(), -1);  // it is off in the file by now
  expectLog({"smtp.cpp: Fail to restart postfix daemon"});
}

TEST_F(SMTPTest, FailedFirewallReloadStartsNothing) {
  platform::failCall("KESTFwRuleHup");
  SMTP smtp;
  fill(smtp);
  EXPECT_EQ(smtp.save(), -1);
  expectLog({"smtp.cpp: firewall rule hup fail"});
  EXPECT_EQ(tree.takeCalls(), (Calls{"kest_gen_login_map", "DaemonConfSet.sh smtp"}));
}

// ---- what the package puts down

// The settings file of a fresh machine holds what fresh objects would save, and the
// keys of the classes that are not saved here at their defaults.
TEST_F(SMTPTest, InstalledSettingsAreTheDefaults) {
  const std::string installed = readFile(POSTWELL_PACKAGE_SOURCES "/etc/postwell.conf");
  writeFile(kSettings, installed);
  SMTP smtp;
  ReceiveProtocol protocols;
  ASSERT_EQ(smtp.saveSMTPSetting(), 0);
  ASSERT_EQ(smtp.saveRelaySetting(), 0);
  ASSERT_EQ(protocols.save(), 0);
  writeFile(kSettings,
            std::regex_replace(readFile(kSettings), std::regex("(sb1:[^\"]*)"), ""));
  EXPECT_EQ(readFile(kSettings), installed);
  const std::map<std::string, std::string> others = {
      {"spam_enable", "no"},
      {"spam_required_score", "5.00"},
      {"spam_enable_rewrite", "no"},
      {"spam_rewrite_subject", "*****SPAM*****"},
      {"spam_report_machanism", "1"},
      {"spam_auto_learn", "no"},
      {"spam_learn_threshold_spam", "12.00"},
      {"spam_learn_threshold_non_spam", "0.10"},
      {"spam_auto_whitelist", "no"},
      {"spam_dnsbl_enable", "no"},
      {"spam_clean_interval", "30"},
      {"anti_virus_enable", "no"},
      {"canonical_domain", ""},
      {"always_bcc", ""}};
  for (const auto &[key, value] : others) EXPECT_EQ(stored(key), value) << key;
}

TEST_F(SMTPTest, InstalledPortFileHasTheDefaultPorts) {
  const std::string installed = readFile(POSTWELL_PACKAGE_SOURCES "/etc/postwell_port");
  writeFile(kPorts, installed);
  SMTP smtp;
  ASSERT_EQ(smtp.saveSMTPSetting(), 0);
  EXPECT_EQ(readFile(kPorts), installed);
}

// ---- the static operations

TEST_F(SMTPTest, ServicePassesItsActionAndResultOn) {
  for (const char *action : {"start", "stop", "restart"}) {
    EXPECT_EQ(SMTP::Service(action), 0);
    EXPECT_EQ(tree.takeCalls(), Calls{std::string("PostfixDaemon.sh ") + action});
  }
  tree.failScript("PostfixDaemon.sh", 3);
  EXPECT_LT(SMTP::Service("start"), 0);
  for (const int result : {-7, 5}) {
    platform::answerCall("KLIBCExec", result);
    EXPECT_EQ(SMTP::Service("start"), result);
    platform::answerCall("KLIBCExec", result);
    EXPECT_EQ(SMTP::SetPostfixConfig(), result);
  }
}

TEST_F(SMTPTest, SetPostfixConfigPassesItsResultOn) {
  EXPECT_EQ(SMTP::SetPostfixConfig(), 0);
  EXPECT_EQ(tree.takeCalls(), Calls{"DaemonConfSet.sh smtp"});
  tree.failScript("DaemonConfSet.sh");
  EXPECT_LT(SMTP::SetPostfixConfig(), 0);
}

}  // namespace
