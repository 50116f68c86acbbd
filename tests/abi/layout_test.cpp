// A program compiled against one libpostwell runs with the next: the exported
// classes keep their size, and each field its place. The structs below repeat the
// fields in their order; a setter must change what stands at the field's place.

#include <gtest/gtest.h>

#include <cstring>
#include <list>
#include <map>
#include <string>

#include "DBHandler.h"
#include "alias.h"
#include "domain.h"
#include "receive_protocol.h"
#include "smtp.h"
#include "support/files.h"

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

struct SQLCmdFields {
  std::list<std::string> cmdList;
};

struct DBHandlerFields {
  int errCode;
  int busyTimeout;
  sqlite3 *db;
  bool inTran;
  std::string schema;
  std::string dbPath;
};

struct MemberInfoFields {
  std::string name;
  int type;
};

struct AliasFields {
  int err;
  DBHandler *aliasDB;
  std::list<std::string> aliasList;
};

struct DomainFields {
  std::list<std::string> domainList;
};

static_assert(sizeof(Relay) == sizeof(RelayFields));
static_assert(sizeof(SMTP) == sizeof(SMTPFields));
static_assert(sizeof(ReceiveProtocol) == sizeof(ReceiveProtocolFields));
static_assert(alignof(SMTP) == alignof(SMTPFields));
static_assert(sizeof(SQLCmd) == sizeof(SQLCmdFields));
static_assert(sizeof(DBHandler) == sizeof(DBHandlerFields));
static_assert(sizeof(MemberInfo) == sizeof(MemberInfoFields));
static_assert(sizeof(Alias) == sizeof(AliasFields));
static_assert(sizeof(Domain) == sizeof(DomainFields));
static_assert(sizeof(Protocol) == sizeof(int));
static_assert(sizeof(MemberType) == sizeof(int));

const SMTPFields &fieldsOf(const SMTP &smtp) {
  return reinterpret_cast<const SMTPFields &>(smtp);
}

TEST(Layout, SizesAreKnown) {
  if (sizeof(void *) == 8) {
    EXPECT_EQ(sizeof(Relay), 112u);
    EXPECT_EQ(sizeof(SMTP), 240u);
    EXPECT_EQ(sizeof(ReceiveProtocol), 48u);
    EXPECT_EQ(sizeof(SQLCmd), 24u);
    EXPECT_EQ(sizeof(DBHandler), 88u);
    EXPECT_EQ(sizeof(MemberInfo), 40u);
    EXPECT_EQ(sizeof(Alias), 40u);
    EXPECT_EQ(sizeof(Domain), 24u);
  } else {
    EXPECT_EQ(sizeof(Relay), 84u);
    EXPECT_EQ(sizeof(SMTP), 180u);
    EXPECT_EQ(sizeof(ReceiveProtocol), 24u);
    EXPECT_EQ(sizeof(SQLCmd), 12u);
    EXPECT_EQ(sizeof(DBHandler), 64u);
    EXPECT_EQ(sizeof(MemberInfo), 28u);
    EXPECT_EQ(sizeof(Alias), 20u);
    EXPECT_EQ(sizeof(Domain), 12u);
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
  const auto &map = reinterpret_cast<const ReceiveProtocolFields &>(object).protocol;
  EXPECT_EQ(map.size(), 4u);
  object.getProtocol(static_cast<Protocol>(7));
  EXPECT_EQ(map.count(static_cast<Protocol>(7)), 1u);
  object = ReceiveProtocol();
  object.setProtocol(IMAPS, true);
  const auto &fields = reinterpret_cast<const ReceiveProtocolFields &>(object);
  EXPECT_EQ(fields.protocol,
            (std::map<Protocol, bool>{
                {POP3, false}, {POP3S, false}, {IMAP, false}, {IMAPS, true}}));
}

TEST(Layout, EveryDBHandlerFieldStandsAtItsPlace) {
  const std::string path = "/var/packages/Postwell/etc/test.db";
  writeFile(path, "");
  DBHandler handle(path, "select 1;");
  const auto &fields = reinterpret_cast<const DBHandlerFields &>(handle);
  EXPECT_EQ(fields.errCode, -1);
  EXPECT_EQ(fields.busyTimeout, 0);
  EXPECT_EQ(fields.schema, "select 1;");
  EXPECT_EQ(fields.dbPath, path);
  handle.setBusyTimeout(300);
  EXPECT_EQ(fields.busyTimeout, 300);
  ASSERT_EQ(handle.connect(), 0);
  EXPECT_EQ(fields.db, handle.getDB());
  EXPECT_EQ(fields.errCode, 0);
  ASSERT_EQ(handle.beginTransaction(), 0);
  EXPECT_TRUE(fields.inTran);
}

TEST(Layout, SQLCmdIsItsList) {
  SQLCmd cmds;
  cmds += "select 1;";
  EXPECT_EQ(&reinterpret_cast<const SQLCmdFields &>(cmds).cmdList, &cmds.cmd_list);
  EXPECT_EQ(reinterpret_cast<const SQLCmdFields &>(cmds).cmdList.size(), 1u);
}

TEST(Layout, MemberInfoIsNameAndType) {
  MemberInfo member;
  member.strName = "anna";
  member.type = EXTADDR;
  const auto &fields = reinterpret_cast<const MemberInfoFields &>(member);
  EXPECT_EQ(fields.name, "anna");
  EXPECT_EQ(fields.type, 3);
}

TEST(Layout, AliasIsItsErrorHandleAndNames) {
  const Alias unusable;  // without a settings file
  const auto &fields = reinterpret_cast<const AliasFields &>(unusable);
  EXPECT_EQ(fields.err, -1);
  EXPECT_EQ(fields.aliasDB, nullptr);
  EXPECT_EQ(fields.aliasList.size(), 0u);
}

TEST(Layout, DomainIsItsList) {
  Domain domains;
  domains.addDomain("a.example");
  EXPECT_EQ(reinterpret_cast<const DomainFields &>(domains).domainList,
            std::list<std::string>{"a.example"});
}

}  // namespace
