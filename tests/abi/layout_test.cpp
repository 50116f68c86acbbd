// A program compiled against one libpostwell runs with the next: the exported
// classes keep their size, and each field its place. The structs below repeat the
// fields in their order; a setter must change what stands at the field's place.

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>

#include "receive_protocol.h"
#include "smtp.h"

namespace {

struct RelayFields {
  bool enableRelay;
  std::string server;
  int serverPort;
  bool enableSecureConnect;
  bool enableRelayAuth;
  std::string relayAccount;
  std::string relayPassword;
};

struct SMTPFields {
  bool enableSMTP;
  std::string accountType;
  std::string accDomainName;
  bool enableSMTPAuth;
  bool ignoreAuth;
  std::string hostName;
  int smtpPort;
  int messageSizeLimit;
  bool restrictSender;
  bool enableSMTPS;
  int smtpsPort;
  RelayFields relay;
};

struct ReceiveProtocolFields {
  std::map<Protocol, bool> protocol;
};

static_assert(sizeof(Relay) == sizeof(RelayFields));
static_assert(sizeof(SMTP) == sizeof(SMTPFields));
static_assert(sizeof(ReceiveProtocol) == sizeof(ReceiveProtocolFields));
static_assert(alignof(SMTP) == alignof(SMTPFields));
static_assert(sizeof(Protocol) == sizeof(int));

const SMTPFields &fieldsOf(const SMTP &smtp) {
  return reinterpret_cast<const SMTPFields &>(smtp);
}

TEST(Layout, SizesAreKnown) {
  if (sizeof(void *) == 8) {
    EXPECT_EQ(sizeof(Relay), 112u);
    EXPECT_EQ(sizeof(SMTP), 240u);
    EXPECT_EQ(sizeof(ReceiveProtocol), 48u);
  } else {
    EXPECT_EQ(sizeof(Relay), 84u);
    EXPECT_EQ(sizeof(SMTP), 180u);
    EXPECT_EQ(sizeof(ReceiveProtocol), 24u);
  }
}

TEST(Layout, EverySMTPFieldStandsAtItsPlace) {
  SMTP smtp;
  const SMTPFields &fields = fieldsOf(smtp);
  smtp.setSMTP(true);
  EXPECT_TRUE(fields.enableSMTP);
  smtp.setAccountType("win");
  EXPECT_EQ(fields.accountType, "win");
  smtp.setAccDomainName("corp.example");
  EXPECT_EQ(fields.accDomainName, "corp.example");
  EXPECT_TRUE(fields.enableSMTPAuth);
  smtp.setSMTPAuth(false);
  EXPECT_FALSE(fields.enableSMTPAuth);
  smtp.setSMTPIgnoreAuth(true);
  EXPECT_TRUE(fields.ignoreAuth);
  smtp.setHostName("mail.example");
  EXPECT_EQ(fields.hostName, "mail.example");
  smtp.setSMTPPort(26);
  EXPECT_EQ(fields.smtpPort, 26);
  smtp.setMessageSizeLimit(27);
  EXPECT_EQ(fields.messageSizeLimit, 27);
  smtp.setRestrictSender(true);
  EXPECT_TRUE(fields.restrictSender);
  smtp.setSMTPS(true);
  EXPECT_TRUE(fields.enableSMTPS);
  smtp.setSMTPsPort(28);
  EXPECT_EQ(fields.smtpsPort, 28);
}

TEST(Layout, EveryRelayFieldStandsAtItsPlace) {
  SMTP smtp;
  const RelayFields &fields = fieldsOf(smtp).relay;
  smtp.setRelay(true);
  EXPECT_TRUE(fields.enableRelay);
  smtp.setRelayServerInfo("relay.example", 587);
  EXPECT_EQ(fields.server, "relay.example");
  EXPECT_EQ(fields.serverPort, 587);
  smtp.setSecureConn(true);
  EXPECT_TRUE(fields.enableSecureConnect);
  smtp.setRelayAuthEnable(true);
  EXPECT_TRUE(fields.enableRelayAuth);
  smtp.setRelayAccount("smart");
  EXPECT_EQ(fields.relayAccount, "smart");
  smtp.setRelayPassword("secret");
  EXPECT_EQ(fields.relayPassword, "secret");
}

TEST(Layout, ReceiveProtocolIsItsMap) {
  ReceiveProtocol object;
  object.setProtocol(IMAPS, true);
  const auto &fields = reinterpret_cast<const ReceiveProtocolFields &>(object);
  EXPECT_EQ(fields.protocol,
            (std::map<Protocol, bool>{
                {POP3, false}, {POP3S, false}, {IMAP, false}, {IMAPS, true}}));
}

}  // namespace
