// Personal for the accounts of a domain and a directory, on the machine with the accounts
// of tests/platform/accounts/.

#include <filesystem>

#include "personal.h"
#include "support/files.h"
#include "support/library_test.h"

namespace {

namespace fs = std::filesystem;

struct Account {
  const char *type, *user, *home, *bare;
};

const Account kAccounts[] = {
    {"win", "OFFICE\\bert", "/var/services/homes/@DH-OFFICE/bert", "bert"},
    {"ldap", "carla@corp.example", "/var/services/homes/@LH-corp/carla2", "carla"},
    {"local", "anna", "/var/services/homes/anna", "anna"}};

TEST_F(LibraryTest, EachKindOfAccountHasItsFilesInItsHomeUnderItsBareName) {
  for (const Account &account : kAccounts) {
    writeFile(PackageTree::kSettings,
              "account_type=\"" + std::string(account.type) + "\"\n");
    const std::string home = account.home, bare = account.bare;
    fs::create_directories(home);
    Personal personal(account.user);
    ASSERT_TRUE(personal.isValid()) << account.user;
    personal.setForward(true);
    personal.setForwardAddr("other@x.example");
    personal.setKeepCopy(true);
    personal.setReply(true);
    personal.setReplySubject("Away");
    personal.setReplyMessage("Back on Monday");
    EXPECT_EQ(personal.save(), 0);
    EXPECT_EQ(readFile(home + "/.forward"),
              "\\" + bare + "\n\"|/var/packages/Postwell/target/bin/vacation " + bare +
                  "\"\nother@x.example\n");
    EXPECT_EQ(readFile(home + "/.vacation.msg"),
              "From:\"" + bare + "\"\nSubject:Away\nBack on Monday\n");
    const Personal again(account.user);
    EXPECT_TRUE(again.isValid() && again.isEnabledForward() && again.isKeepCopy() &&
                again.isEnabledReply())
        << account.user;
    EXPECT_EQ(again.getUser(), account.user);
    EXPECT_EQ(again.getForwardAddr(), "other@x.example");
    EXPECT_EQ(again.getReplySubject(), "Away");
    EXPECT_EQ(again.getReplyMessage(), "Back on Monday\r\n");
  }
}

TEST_F(LibraryTest, AHomeThatIsMissingIsNotMade) {
  writeFile(PackageTree::kSettings, "account_type=\"win\"\n");
  fs::remove_all("/var/services/homes/@DH-OFFICE");
  Personal personal("OFFICE\\bert");
  EXPECT_TRUE(personal.isValid());
  personal.setReply(true);
  EXPECT_EQ(personal.save(), -1);
  EXPECT_FALSE(fileExists("/var/services/homes/@DH-OFFICE"));
  expectLog({"personal.cpp: Can not open Forward file.",
             "personal.cpp: Can not write to Forward file."});
}

TEST_F(LibraryTest, AnUnknownAccountHasNoHome) {
  const std::pair<std::string, std::string> unknown[] = {
      {"win", "OFFICE\\nosuch"}, {"win", "OTHER\\bert"}, {"ldap", "nosuch@corp.example"}};
  for (const auto &[type, user] : unknown) {
    writeFile(PackageTree::kSettings, "account_type=\"" + type + "\"\n");
    const Personal personal(user);
    EXPECT_FALSE(personal.isValid()) << user;
    EXPECT_EQ(personal.getErrKey(), "no_user_home") << user;
    const std::string function =
        type == "win" ? "KESTDomainUserHomePathGet" : "KESTLDAPUserHomePathGet";
    expectLog({"personal.cpp: " + function + "(user[" + user + "]) failed"});
  }
}

}  // namespace
