// A program compiled against one libpostwell runs with the next: the exported
// classes keep their size, and each field its place. The structs below repeat the
// fields in their order; a setter must change what stands at the field's place.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "DBHandler.h"
#include "access.h"
#include "alias.h"
#include "bcc.h"
#include "domain.h"
#include "maillog.h"
#include "maillogger.h"
#include "personal.h"
#include "receive_protocol.h"
#include "security.h"
#include "smtp.h"
#include "spam.h"
#include "spam_filter.h"
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

struct PersonalFields {
  std::string errKey;
  std::string user;
  bool valid;
  bool dirty;
  std::string homePath;
  bool enableForward;
  bool keepCopy;
  std::string forwardAddr;
  bool enableReply;
  std::string replySubject;
  std::string replyMessage;
};

struct AliasFields {
  int err;
  DBHandler *aliasDB;
  std::list<std::string> aliasList;
};

struct MailLogInfoFields {
  std::string messageID;
  std::string queueID;
  time_t logTime;
  tm date;
  long mailSize;
  int status;
  std::string mailTo;
  std::string mailFrom;
};

struct CountFields {
  std::map<MailStatus, uint32_t> quantity;
  std::map<MailStatus, uint32_t> bandwidth;
};

struct MailLoggerFields {
  int logCacheTime;
  int logRotateThreshold;
  int totalLogNum;
  time_t lastFlushTime;
  time_t lastCountTime;
  time_t lastUpdateTime;
  int err;
  int logFd;
  std::list<MailLogInfo> cachedLogList;
  DBHandler *mailLogDB;
  DBHandler *logCountDB;
  std::map<long, Count> counterSecond;
  std::map<long, Count> counterHour;
  std::map<long, Count> counterDay;
};

struct LogFilterFields {
  std::string select;
  int start;
  int limit;
  std::string orderDir;
  std::string orderType;
  std::string messageID;
  std::string mailTo;
  std::string mailFrom;
  std::string sizeOpt;
  long mailSize;
  int status;
  time_t dateFrom;
  time_t dateTo;
};

struct StatisticFields {
  std::vector<uint64_t> inbound;
  std::vector<uint64_t> outbound;
  std::vector<uint64_t> bounce;
};

struct MailLogFields {
  DBHandler *mailLogDB;
  DBHandler *statisticDB;
  int error;
};

struct DomainFields {
  std::list<std::string> domainList;
};

struct AccessInfoFields {
  std::string name;
  int status;
  int type;
  int nameType;
};

struct BlackWhiteFields {
  std::string name;
  int blackWhite;
  int type;
  int nameType;
};

struct BlackWhiteFilterFields {
  int start;
  int limit;
  int type;
  int blackWhite;
  std::string select;
  std::string searchKey;
};

struct SpamFields {
  DBHandler *blackWhiteDB;
  bool enableSpamassassin;
  bool enableRewrite;
  std::string rewriteSubject;
  float requiredScore;
  int reportMachanism;
  bool useAutoLearn;
  float learnThresholdSpam;
  float learnThresholdNonSpam;
  bool useAutoWhiteList;
};

struct SpamRuleFields {
  std::string ruleName;
  bool isEnable;
};

struct DNSBinfoFields {
  std::string serverName;
  int type;
};

struct DNSBLFields {
  bool enableDNSBL;
  std::list<DNSBinfo> dnsbList;
};

struct SecurityFields {
  int spamCleanInterval;
  bool enableAntiVirus;
  Spam *spam;
  DNSBL *dnsbl;
};

struct BccInfoFields {
  std::string name;
  std::string bccTo;
  int type;
};

struct FilterFields {
  int start;
  int limit;
  std::string type;
  std::string key;
};

static_assert(sizeof(AccessInfo) == sizeof(AccessInfoFields));
static_assert(sizeof(BccInfo) == sizeof(BccInfoFields));
static_assert(sizeof(Filter) == sizeof(FilterFields));
static_assert(sizeof(Access) == sizeof(void *));  // its handle
static_assert(sizeof(BCC) == sizeof(void *));
static_assert(sizeof(BlackWhite) == sizeof(BlackWhiteFields));
static_assert(sizeof(BlackWhiteFilter) == sizeof(BlackWhiteFilterFields));
static_assert(sizeof(Spam) == sizeof(SpamFields));
static_assert(sizeof(SpamRule) == sizeof(SpamRuleFields));
static_assert(offsetof(SpamRule, isEnable) == offsetof(SpamRuleFields, isEnable));
static_assert(sizeof(DNSBinfo) == sizeof(DNSBinfoFields));
static_assert(offsetof(DNSBinfo, type) == offsetof(DNSBinfoFields, type));
static_assert(sizeof(DNSBL) == sizeof(DNSBLFields));
static_assert(sizeof(Security) == sizeof(SecurityFields));
static_assert(sizeof(DNSBType) == sizeof(int));
static_assert(sizeof(BlackWhiteType) == sizeof(int));
static_assert(sizeof(Type) == sizeof(int));
static_assert(sizeof(NameType) == sizeof(int));
static_assert(sizeof(AccessStatus) == sizeof(int));
static_assert(sizeof(BccType) == sizeof(int));
static_assert(sizeof(Relay) == sizeof(RelayFields));
static_assert(sizeof(SMTP) == sizeof(SMTPFields));
static_assert(sizeof(ReceiveProtocol) == sizeof(ReceiveProtocolFields));
static_assert(alignof(SMTP) == alignof(SMTPFields));
static_assert(sizeof(SQLCmd) == sizeof(SQLCmdFields));
static_assert(sizeof(DBHandler) == sizeof(DBHandlerFields));
static_assert(sizeof(MemberInfo) == sizeof(MemberInfoFields));
static_assert(sizeof(Alias) == sizeof(AliasFields));
static_assert(sizeof(Personal) == sizeof(PersonalFields));
static_assert(sizeof(Domain) == sizeof(DomainFields));
static_assert(sizeof(MailLogInfo) == sizeof(MailLogInfoFields));
static_assert(sizeof(Count) == sizeof(CountFields));
static_assert(sizeof(MailLogger) == sizeof(MailLoggerFields));
static_assert(sizeof(LogFilter) == sizeof(LogFilterFields));
static_assert(offsetof(LogFilter, start) == offsetof(LogFilterFields, start));
static_assert(offsetof(LogFilter, limit) == offsetof(LogFilterFields, limit));
static_assert(offsetof(LogFilter, orderDir) == offsetof(LogFilterFields, orderDir));
static_assert(offsetof(LogFilter, orderType) == offsetof(LogFilterFields, orderType));
static_assert(offsetof(LogFilter, messageID) == offsetof(LogFilterFields, messageID));
static_assert(offsetof(LogFilter, mailTo) == offsetof(LogFilterFields, mailTo));
static_assert(offsetof(LogFilter, mailFrom) == offsetof(LogFilterFields, mailFrom));
static_assert(offsetof(LogFilter, sizeOpt) == offsetof(LogFilterFields, sizeOpt));
static_assert(offsetof(LogFilter, mailSize) == offsetof(LogFilterFields, mailSize));
static_assert(offsetof(LogFilter, status) == offsetof(LogFilterFields, status));
static_assert(offsetof(LogFilter, dateFrom) == offsetof(LogFilterFields, dateFrom));
static_assert(offsetof(LogFilter, dateTo) == offsetof(LogFilterFields, dateTo));
static_assert(sizeof(Statistic) == sizeof(StatisticFields));
static_assert(sizeof(MailLog) == sizeof(MailLogFields));
static_assert(sizeof(TimeScale) == sizeof(int));
static_assert(DAY == 24 && WEEK == 7 && MONTH == 30 && HALF_YEAR == 6);
static_assert(COLUMN_MESSAGE_ID == 0 && COLUMN_QUEUE_ID == 1 && COLUMN_DATE == 2);
static_assert(COLUMN_MAIL_FROM == 3 && COLUMN_MAIL_TO == 4 && COLUMN_SIZE == 5);
static_assert(COLUMN_STATUS == 6);
static_assert(sizeof(Protocol) == sizeof(int));
static_assert(sizeof(MailStatus) == sizeof(int));
static_assert(sizeof(LOG_STATUS) == sizeof(int));
static_assert(sizeof(CountInterval) == sizeof(int));

// The record on its way through the socket is the same on every machine.
static_assert(sizeof(LogSocket) == 1292);
static_assert(offsetof(LogSocket, log_time) == 0);
static_assert(offsetof(LogSocket, szQueueID) == 4);
static_assert(offsetof(LogSocket, szMessageID) == 260);
static_assert(offsetof(LogSocket, szMailFrom) == 772);
static_assert(offsetof(LogSocket, szMailTo) == 1028);
static_assert(offsetof(LogSocket, mail_size) == 1284);
static_assert(offsetof(LogSocket, status) == 1288);
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
    EXPECT_EQ(sizeof(MailLogInfo), 208u);
    EXPECT_EQ(sizeof(Count), 96u);
    EXPECT_EQ(sizeof(MailLogger), 232u);
    EXPECT_EQ(sizeof(Personal), 216u);
  } else {
    EXPECT_EQ(sizeof(Relay), 84u);
    EXPECT_EQ(sizeof(SMTP), 180u);
    EXPECT_EQ(sizeof(ReceiveProtocol), 24u);
    EXPECT_EQ(sizeof(SQLCmd), 12u);
    EXPECT_EQ(sizeof(DBHandler), 64u);
    EXPECT_EQ(sizeof(MemberInfo), 28u);
    EXPECT_EQ(sizeof(Alias), 20u);
    EXPECT_EQ(sizeof(Domain), 12u);
    EXPECT_EQ(sizeof(MailLogInfo), 152u);
    EXPECT_EQ(sizeof(Count), 48u);
    EXPECT_EQ(sizeof(MailLogger), 124u);
    EXPECT_EQ(sizeof(Personal), 156u);
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

TEST(Layout, EveryFieldOfARuleStandsAtItsPlace) {
  const AccessInfo access(TYPE_CLIENT, NAME_ADDRESS, "a", ACCESS_DISCARD);
  const auto &fields = reinterpret_cast<const AccessInfoFields &>(access);
  EXPECT_EQ(fields.name, "a");
  EXPECT_EQ(fields.status, 3);
  EXPECT_EQ(fields.type, 2);
  EXPECT_EQ(fields.nameType, 1);
  const BccInfo bcc(BCC_RECIPIENT, "a", "b");
  const auto &bccFields = reinterpret_cast<const BccInfoFields &>(bcc);
  EXPECT_EQ(bccFields.name, "a");
  EXPECT_EQ(bccFields.bccTo, "b");
  EXPECT_EQ(bccFields.type, 1);
  const Filter filter = {1, 2, "all", "key"};
  const auto &filterFields = reinterpret_cast<const FilterFields &>(filter);
  EXPECT_EQ(filterFields.start, 1);
  EXPECT_EQ(filterFields.limit, 2);
  EXPECT_EQ(filterFields.type, "all");
  EXPECT_EQ(filterFields.key, "key");
}

TEST(Layout, EveryFieldOfTheProtectionStandsAtItsPlace) {
  const std::string settings = "/var/packages/Postwell/etc/postwell.conf";
  writeFile(settings, "");
  writeFile("/var/packages/Postwell/etc/spamlist.conf", "");
  Security *const security = Security::getInstance();
  remove(settings.c_str());  // the tests of other classes are without
  ASSERT_NE(security, nullptr);
  Spam *const spam = Spam::getInstance();
  DNSBL *const dnsbl = DNSBL::getInstance();
  const auto &fields = reinterpret_cast<const SecurityFields &>(*security);
  security->setSpamCleanInterval(26);
  EXPECT_EQ(fields.spamCleanInterval, 26);
  security->setEnableAntiVirus(true);
  EXPECT_TRUE(fields.enableAntiVirus);
  EXPECT_EQ(fields.spam, spam);
  EXPECT_EQ(fields.dnsbl, dnsbl);

  const auto &lists = reinterpret_cast<const DNSBLFields &>(*dnsbl);
  dnsbl->setEnableDNSBL(true);
  EXPECT_TRUE(lists.enableDNSBL);
  dnsbl->setDNSBList({{"a", RHSBL}});
  EXPECT_EQ(lists.dnsbList, (std::list<DNSBinfo>{{"a", RHSBL}}));

  const auto &filter = reinterpret_cast<const SpamFields &>(*spam);
  EXPECT_NE(filter.blackWhiteDB, nullptr);
  spam->setEnableSpamassassin(true);
  EXPECT_TRUE(filter.enableSpamassassin);
  spam->setEnableRewrite(true);
  EXPECT_TRUE(filter.enableRewrite);
  spam->setRewriteSubject("subject");
  EXPECT_EQ(filter.rewriteSubject, "subject");
  spam->setRequiredScore(27);
  EXPECT_EQ(filter.requiredScore, 27.0f);
  spam->setReportMachanism(28);
  EXPECT_EQ(filter.reportMachanism, 28);
  spam->setUseAutoLearn(true);
  EXPECT_TRUE(filter.useAutoLearn);
  spam->setSpamLearnThreshold(29);
  EXPECT_EQ(filter.learnThresholdSpam, 29.0f);
  spam->setNonSpamLearnThreshold(30);
  EXPECT_EQ(filter.learnThresholdNonSpam, 30.0f);
  spam->setUseAutoWhiteList(true);
  EXPECT_TRUE(filter.useAutoWhiteList);
}

TEST(Layout, EnumeratorsKeepTheirNumbers) {
  EXPECT_EQ(RBL, 0);
  EXPECT_EQ(RHSBL, 1);
  EXPECT_EQ(TYPE_SENDER, 0);
  EXPECT_EQ(TYPE_RECIPIENT, 1);
  EXPECT_EQ(TYPE_CLIENT, 2);
  EXPECT_EQ(NAME_ACCOUNT, 0);
  EXPECT_EQ(NAME_ADDRESS, 1);
  EXPECT_EQ(NAME_DOMAIN, 2);
  EXPECT_EQ(ACCESS_UNKNOW, 0);
  EXPECT_EQ(ACCESS_PERMIT, 1);
  EXPECT_EQ(ACCESS_REJECT, 2);
  EXPECT_EQ(ACCESS_DISCARD, 3);
  EXPECT_EQ(TYPE_KNOWN, -1);
  EXPECT_EQ(TYPE_BLACK, 1);
  EXPECT_EQ(TYPE_WHITE, 2);
  EXPECT_EQ(BCC_SENDER, 0);
  EXPECT_EQ(BCC_RECIPIENT, 1);
  EXPECT_EQ(BCC_ALL, 2);
}

TEST(Layout, AliasIsItsErrorHandleAndNames) {
  const Alias unusable;  // without a settings file
  const auto &fields = reinterpret_cast<const AliasFields &>(unusable);
  EXPECT_EQ(fields.err, -1);
  EXPECT_EQ(fields.aliasDB, nullptr);
  EXPECT_EQ(fields.aliasList.size(), 0u);
}

TEST(Layout, EveryPersonalFieldStandsAtItsPlace) {
  Personal personal("alice");  // without a settings file accounts are local
  const auto &fields = reinterpret_cast<const PersonalFields &>(personal);
  EXPECT_EQ(fields.user, "alice");
  EXPECT_TRUE(fields.valid);
  EXPECT_FALSE(fields.dirty);
  EXPECT_EQ(fields.homePath, "/var/services/homes/alice");
  personal.setForward(true);
  EXPECT_TRUE(fields.enableForward);
  personal.setKeepCopy(true);
  EXPECT_TRUE(fields.keepCopy);
  personal.setForwardAddr("address");
  EXPECT_EQ(fields.forwardAddr, "address");
  personal.setReply(true);
  EXPECT_TRUE(fields.enableReply);
  personal.setReplySubject("subject");
  EXPECT_EQ(fields.replySubject, "subject");
  personal.setReplyMessage("message");
  EXPECT_EQ(fields.replyMessage, "message");
  const Personal other("carla@corp.example");
  EXPECT_EQ(reinterpret_cast<const PersonalFields &>(other).errKey, "acc_type_unsupport");
}

TEST(Layout, DomainIsItsList) {
  Domain domains;
  domains.addDomain("a.example");
  EXPECT_EQ(reinterpret_cast<const DomainFields &>(domains).domainList,
            std::list<std::string>{"a.example"});
}

TEST(Layout, EveryMailLogInfoFieldStandsAtItsPlace) {
  MailLogInfo entry;
  const auto &fields = reinterpret_cast<const MailLogInfoFields &>(entry);
  entry.strMessageID = "id";
  EXPECT_EQ(fields.messageID, "id");
  entry.strQueueID = "queue";
  EXPECT_EQ(fields.queueID, "queue");
  entry.log_time = 1700000015;
  EXPECT_EQ(fields.logTime, 1700000015);
  entry.date.tm_year = 123;
  EXPECT_EQ(fields.date.tm_year, 123);
  entry.mailSize = 27;
  EXPECT_EQ(fields.mailSize, 27);
  entry.status = STATUS_BOUNCE;
  EXPECT_EQ(fields.status, 2);
  entry.strMailTo = "to";
  EXPECT_EQ(fields.mailTo, "to");
  entry.strMailFrom = "from";
  EXPECT_EQ(fields.mailFrom, "from");
}

TEST(Layout, CountIsQuantityAndBandwidth) {
  Count count;
  const auto &fields = reinterpret_cast<const CountFields &>(count);
  count.quantity[STATUS_RESENT] = 3;
  count.bandwidth[STATUS_SENT] = 4;
  EXPECT_EQ(fields.quantity.at(STATUS_RESENT), 3u);
  EXPECT_EQ(fields.bandwidth.at(STATUS_SENT), 4u);
}

TEST(Layout, StatisticIsItsThreeSeries) {
  Statistic traffic;
  traffic.inbound = {1};
  traffic.outbound = {2, 2};
  traffic.bounce = {3, 3, 3};
  const auto &fields = reinterpret_cast<const StatisticFields &>(traffic);
  EXPECT_EQ(fields.inbound.size(), 1u);
  EXPECT_EQ(fields.outbound.size(), 2u);
  EXPECT_EQ(fields.bounce.size(), 3u);
}

TEST(Layout, EveryMailLogFieldStandsAtItsPlace) {
  const MailLog reader("/nowhere/maillog.db");
  const auto &fields = reinterpret_cast<const MailLogFields &>(reader);
  ASSERT_NE(fields.mailLogDB, nullptr);
  ASSERT_NE(fields.statisticDB, nullptr);
  EXPECT_NE(fields.mailLogDB->getErrCode(), -1);  // it was tried, the other one was not
  EXPECT_EQ(fields.statisticDB->getErrCode(), -1);
  EXPECT_EQ(fields.error, -1);
}

TEST(Layout, EveryMailLoggerFieldStandsAtItsPlace) {
  MailLogger logger(26, 27);
  const auto &fields = reinterpret_cast<const MailLoggerFields &>(logger);
  EXPECT_EQ(fields.logCacheTime, 26);
  EXPECT_EQ(fields.logRotateThreshold, 27);
  EXPECT_EQ(fields.totalLogNum, 0);
  const time_t now = time(nullptr);
  for (const time_t taken :
       {fields.lastFlushTime, fields.lastCountTime, fields.lastUpdateTime})
    EXPECT_LE(now - taken, 60);
  EXPECT_EQ(fields.err, 0);
  EXPECT_GT(fields.logFd, 2);
  EXPECT_EQ(fields.cachedLogList.size(), 0u);
  LogSocket record{};
  record.log_time = 90;
  record.status = STATUS_BOUNCE;
  logger.cacheLog(record);
  EXPECT_EQ(fields.cachedLogList.size(), 1u);
  EXPECT_NE(fields.mailLogDB, nullptr);
  EXPECT_EQ(fields.mailLogDB->getErrCode(), 0);
  EXPECT_EQ(fields.logCountDB->getErrCode(), 0);
  EXPECT_EQ(fields.counterSecond.at(90).quantity.at(STATUS_BOUNCE), 1u);
  EXPECT_EQ(fields.counterHour.count(0), 1u);
  EXPECT_EQ(fields.counterDay.count(0), 1u);
  EXPECT_EQ(fields.counterSecond.count(0), 0u);
}

}  // namespace
