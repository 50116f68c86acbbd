// The firewall's hook.

#include <gtest/gtest.h>
#include <unistd.h>

#include "kestsdk.h"
#include "support/files.h"

namespace {

const char kHook[] = "/usr/kest/etc/firewall-reload";
const char kTrace[] = "/var/tmp/reloaded";

class Firewall : public testing::Test {
 protected:
  void SetUp() override {
    unlink(kHook);
    unlink(kTrace);
  }
};

TEST_F(Firewall, withoutAHookThereIsNothingToDo) { EXPECT_EQ(KESTFwRuleHup(), 0); }

TEST_F(Firewall, hookIsRunWithoutArguments) {
  writeFile(kHook, "#!/bin/sh\necho \"args: $#\" >>/var/tmp/reloaded\n", 0755);
  EXPECT_EQ(KESTFwRuleHup(), 0);
  EXPECT_EQ(readFile(kTrace), "args: 0\n");
}

TEST_F(Firewall, hookThatFailsOrCannotRunIsNegative) {
  writeFile(kHook, "#!/bin/sh\nexit 3\n", 0755);
  EXPECT_LT(KESTFwRuleHup(), 0);
  writeFile(kHook, "#!/bin/sh\nexit 0\n", 0644);
  EXPECT_LT(KESTFwRuleHup(), 0);
}

}  // namespace
