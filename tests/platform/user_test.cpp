// Users, on a machine with the accounts of accounts/ (see with_accounts.sh).

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "kestsdk.h"

namespace {

using Names = std::vector<std::string>;

Names usersOf(int type) {
  KLIBCSzList *list = KLIBCSzListAlloc(512);
  const int count = KESTUserEnum(&list, type);
  Names names;
  for (int i = 0; KLIBCSzListGet(list, i) != nullptr; ++i)
    names.push_back(KLIBCSzListGet(list, i));
  KLIBCSzListFree(list);
  EXPECT_EQ(count, static_cast<int>(names.size()));
  return names;
}

using HomeGet = int (*)(const char *, char *, int);

// The home, or "(failed)"; a failure must leave the buffer empty.
std::string homeOf(HomeGet get, const char *user, int size = 4096) {
  char buffer[4096] = "unchanged";
  const int result = get(user, buffer, size);
  EXPECT_TRUE(result == 0 || *buffer == '\0');
  return result == 0 ? buffer : "(failed)";
}

// What the name service lists, without this library.
Names listedByGetent() {
  Names names;
  FILE *pipe = popen("getent passwd", "r");
  char line[1024];
  while (fgets(line, sizeof line, pipe) != nullptr)
    names.push_back(std::string(line).substr(0, std::string(line).find(':')));
  EXPECT_EQ(pclose(pipe), 0);
  return names;
}

TEST(Users, theTestsAccountsAreTheMachines) {
  EXPECT_EQ(listedByGetent(),
            (Names{"root", "daemon", "justbelow", "zoe", "anna", "last", "nobody",
                   "OFFICE\\bert", "carla", "carla@corp.example", "homeless"}));
}

TEST(Users, localOnesHaveAUidOfTheRangeInTheHostsOrder) {
  EXPECT_EQ(usersOf(KEST_USER_LOCAL), (Names{"zoe", "anna", "last"}));
}

TEST(Users, directoryOnesLieAboveTheRangeAndNobodyIsNone) {
  EXPECT_EQ(usersOf(KEST_USER_DIRECTORY),
            (Names{"OFFICE\\bert", "carla", "carla@corp.example", "homeless"}));
}

TEST(Users, areAppendedToTheList) {
  KLIBCSzList *list = KLIBCSzListAlloc(1);
  ASSERT_EQ(KLIBCSzListPush(&list, "first"), 1);
  EXPECT_EQ(KESTUserEnum(&list, KEST_USER_LOCAL), 3);
  EXPECT_EQ(KESTUserEnum(&list, KEST_USER_LOCAL), 3);
  EXPECT_STREQ(KLIBCSzListGet(list, 0), "first");
  EXPECT_STREQ(KLIBCSzListGet(list, 1), "zoe");
  EXPECT_STREQ(KLIBCSzListGet(list, 6), "last");
  EXPECT_EQ(KLIBCSzListGet(list, 7), nullptr);
  KLIBCSzListFree(list);
}

TEST(Users, badParametersAreNegative) {
  KLIBCSzList *list = KLIBCSzListAlloc(1), *none = nullptr;
  EXPECT_LT(KESTUserEnum(nullptr, KEST_USER_LOCAL), 0);
  EXPECT_LT(KESTUserEnum(&none, KEST_USER_LOCAL), 0);
  EXPECT_LT(KESTUserEnum(&list, 0), 0);
  EXPECT_LT(KESTUserEnum(&list, 3), 0);
  EXPECT_EQ(KLIBCSzListGet(list, 0), nullptr);
  KLIBCSzListFree(list);
}

TEST(Users, haveTheHomeThatTheNameServiceTells) {
  EXPECT_EQ(homeOf(KESTDomainUserHomePathGet, "OFFICE\\bert"),
            "/var/services/homes/@DH-OFFICE/bert");
  EXPECT_EQ(homeOf(KESTLDAPUserHomePathGet, "carla"),
            "/var/services/homes/@LH-corp/carla");
  EXPECT_EQ(homeOf(KESTLDAPUserHomePathGet, "carla@corp.example"),
            "/var/services/homes/@LH-corp/carla2");
}

TEST(Users, unknownOnesAndThoseWithoutHomeAreNegative) {
  for (const HomeGet get : {KESTDomainUserHomePathGet, KESTLDAPUserHomePathGet})
    for (const char *user :
         {"nosuch", "OFFICE\\nosuch", "nosuch@corp.example", "homeless", ""})
      EXPECT_EQ(homeOf(get, user), "(failed)") << user;
  EXPECT_EQ(homeOf(KESTDomainUserHomePathGet, nullptr), "(failed)");
}

TEST(Users, homeMustFitTheBufferWithItsNul) {
  const int length =
      static_cast<int>(std::string("/var/services/homes/@LH-corp/carla").size());
  for (const HomeGet get : {KESTDomainUserHomePathGet, KESTLDAPUserHomePathGet}) {
    EXPECT_NE(homeOf(get, "carla", length + 1), "(failed)");
    EXPECT_EQ(homeOf(get, "carla", length), "(failed)");
    EXPECT_EQ(homeOf(get, "carla", 1), "(failed)");
    EXPECT_LT(get("carla", nullptr, 100), 0);
    char buffer[4];
    EXPECT_LT(get("carla", buffer, 0), 0);
  }
}

}  // namespace
