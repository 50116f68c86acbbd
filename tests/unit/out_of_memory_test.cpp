// Nothing may leave the library but results: every allocation of an operation is
// made to fail in turn.

#include <gtest/gtest.h>

#include <functional>

#include "receive_protocol.h"
#include "smtp.h"
#include "support/allocation_faults.h"
#include "support/files.h"
#include "support/package_tree.h"
#include "support/syslog_reader.h"

namespace {

const std::string kLong(300, 'x');  // never fits inside a string object

// Runs the operation with the 1st, 2nd, … allocation and all after it failing until
// it gets by without any, and gives how many times it failed. An exception that
// escapes a noexcept operation ends the program.
int sweep(const std::function<int()> &operation) {
  int failures = 0;
  for (long n = 0;; n++) {
    allocations::failAfter(n);
    const int result = operation();
    if (!allocations::stopFailing()) {
      EXPECT_EQ(result, 0) << "without a failing allocation";
      return failures;
    }
    failures++;
    if (failures > 2000) return failures;
  }
}

class OutOfMemoryTest : public testing::Test {
 protected:
  OutOfMemoryTest() {
    writeFile(PackageTree::kSettings, "smtp_hostname=\"" + kLong +
                                          "\"\nsmtp_relay_server=\"" + kLong +
                                          "\"\nimap_enabled=\"yes\"\n");
  }
  PackageTree tree;
  SyslogReader log;
};

TEST_F(OutOfMemoryTest, LoadFailsOrSucceedsWhole) {
  EXPECT_GT(sweep([] {
              SMTP smtp;
              const int result = smtp.load();
              if (result == 0) {
                EXPECT_EQ(smtp.getHostName().size(), kLong.size());
                EXPECT_EQ(smtp.getRelayServer().size(), kLong.size());
              }
              return result;
            }),
            3);
}

TEST_F(OutOfMemoryTest, SaveNeverWritesAPartOfTheGroups) {
  const std::string before = readFile(PackageTree::kSettings);
  SMTP smtp;
  smtp.setHostName(kLong + "y");
  EXPECT_GT(sweep([&smtp] { return smtp.save(); }), 10);
  EXPECT_EQ(
      readFile(PackageTree::kSettings).find(before.substr(before.find("imap"))),
      std::string("smtp_hostname=\"" + kLong + "y\"\nsmtp_relay_server=\"\"\n").size());
}

TEST_F(OutOfMemoryTest, SettersLeaveTheFieldAsItWas) {
  SMTP smtp;
  smtp.setHostName("old");
  allocations::failAfter(0);
  smtp.setHostName(kLong);
  smtp.setAccountType(kLong);
  smtp.setAccDomainName(kLong);
  smtp.setRelayServerInfo(kLong, 25);
  smtp.setRelayAccount(kLong);
  smtp.setRelayPassword(kLong);
  EXPECT_TRUE(allocations::stopFailing());
  EXPECT_EQ(smtp.getHostName(), "old");
  EXPECT_EQ(smtp.getAccountType(), "local");
  EXPECT_EQ(smtp.getRelayServer(), "");
  EXPECT_EQ(log.take().size(), 6u);
}

TEST_F(OutOfMemoryTest, ReceiveProtocolNeverThrows) {
  EXPECT_GT(sweep([] {
              ReceiveProtocol object;
              const int result = object.load();
              return result == 0 && !object.getProtocol(IMAP) ? -1 : result;
            }),
            4);
  EXPECT_GT(sweep([] {
              ReceiveProtocol object;
              return object.save();
            }),
            4);
}

}  // namespace
