// The schema texts, held against literal copies: files that exist were made with these
// very texts.

#include "internal/schemas.h"

#include "DBHandler.h"
#include "support/database.h"
#include "support/library_test.h"

namespace {

using Rows = std::vector<std::string>;
using database::rowsOf;

const std::string kPath = "/var/packages/Postwell/etc/test.db";

class SchemasTest : public LibraryTest {
 protected:
  // Makes the file from the schema; the handle is closed again.
  void createFrom(const char *schema) {
    DBHandler handle(kPath, schema);
    ASSERT_EQ(handle.connect(), 0);
    expectLog({"DBHandler.cpp: " + kPath + " isn't exist, create DB"});
  }
};

// "table: column type, …" of every table, by name.
Rows tables() {
  return rowsOf(kPath,
                "select m.name || ': ' || group_concat(c.name || ' ' || c.type, ', ') "
                "from sqlite_master m, pragma_table_info(m.name) c "
                "where m.type = 'table' group by m.name;");
}

// "index on table: column, …" of every index, "unique " before those that are.
Rows indexes() {
  return rowsOf(
      kPath,
      "select iif(i.\"unique\", 'unique ', '') || i.name || ' on ' || m.name || "
      "': ' || group_concat(c.name, ', ') from sqlite_master m, "
      "pragma_index_list(m.name) i, pragma_index_info(i.name) c "
      "where m.type = 'table' group by i.name;");
}

std::string journalMode() { return rowsOf(kPath, "pragma journal_mode;").at(0); }

// ---- texts

TEST_F(SchemasTest, Rules) {
  EXPECT_STREQ(
      schemas::kRules,
      "create table bcc_table(name TEXT, type INTEGER, bcc_to TEXT);create unique index "
      "bcc_name_index on bcc_table(name, type);create table access_table(name_type "
      "INTEGER, name TEXT, type INTEGER, access INTEGER);create unique index "
      "access_name_index on access_table(name_type, name, type);create table "
      "blackwhite_table(name_type INTEGER, name TEXT, type INTEGER, blackwhite "
      "INTEGER);create unique index blackwhite_name_index on blackwhite_table(name_type, "
      "name, type);");
}

TEST_F(SchemasTest, Aliases) {
  const auto withMemberOfRoot = [](const std::string &member) {
    return "BEGIN TRANSACTION;create table alias_info_table(alias TEXT, member TEXT, "
           "type INTEGER);CREATE INDEX alias_index ON alias_info_table "
           "(alias);CREATE INDEX member_index ON alias_info_table (member);CREATE "
           "INDEX type_index ON alias_info_table (type);insert into alias_info_table "
           "(alias, member, type) values ('root', '" +
           member + "', 0);COMMIT TRANSACTION;";
  };
  EXPECT_EQ(schemas::kAliasLocal, withMemberOfRoot("admin"));
  EXPECT_EQ(schemas::kAliasLdap, withMemberOfRoot("admin@%q"));
  EXPECT_EQ(schemas::kAliasWin, withMemberOfRoot("%q\\Administrator"));
}

TEST_F(SchemasTest, MailLog) {
  const std::string table =
      "BEGIN TRANSACTION;create table mail_log_table(message_id TEXT, queue_id TEXT, "
      "date INTEGER, mail_from TEXT, mail_to TEXT, size INTEGER, status INTEGER);CREATE "
      "INDEX message_index ON mail_log_table (message_id);CREATE INDEX queue_index ON "
      "mail_log_table (queue_id);CREATE INDEX date_index ON mail_log_table (date);CREATE "
      "INDEX from_index ON mail_log_table (mail_from);CREATE INDEX to_index ON "
      "mail_log_table (mail_to);CREATE INDEX size_index ON mail_log_table (size);CREATE "
      "INDEX status_index ON mail_log_table (status);";
  EXPECT_EQ(schemas::kMailLog,
            table +
                "create table config_table(key TEXT, value TEXT);CREATE INDEX key_index "
                "ON config_table(key);INSERT INTO config_table VALUES('version','1');"
                "COMMIT TRANSACTION;PRAGMA journal_mode = WAL;");
  EXPECT_EQ(schemas::kMailLogTable, table + "COMMIT TRANSACTION;");
}

TEST_F(SchemasTest, Statistic) {
  EXPECT_STREQ(
      schemas::kStatistic,
      "BEGIN TRANSACTION;create table log_statistic_second(time INTEGER PRIMARY KEY, "
      "inbound_quantity INTEGER, outbound_quantity INTEGER, bounce_quantity INTEGER, "
      "inbound_bandwidth REAL, outbound_bandwidth REAL);create table "
      "log_statistic_hour(time INTEGER PRIMARY KEY, inbound_quantity INTEGER, "
      "outbound_quantity INTEGER, bounce_quantity INTEGER, inbound_bandwidth REAL, "
      "outbound_bandwidth REAL);create table log_statistic_day(time INTEGER PRIMARY KEY, "
      "inbound_quantity INTEGER, outbound_quantity INTEGER, bounce_quantity INTEGER, "
      "inbound_bandwidth REAL, outbound_bandwidth REAL);CREATE INDEX second_index ON "
      "log_statistic_second (time);CREATE INDEX hour_index ON log_statistic_hour "
      "(time);CREATE INDEX day_index ON log_statistic_day (time);create table "
      "config_table(key TEXT, value TEXT);CREATE INDEX key_index ON "
      "config_table(key);INSERT INTO config_table(key, value) "
      "VALUES('version','1');COMMIT TRANSACTION;");
}

// ---- files

TEST_F(SchemasTest, RulesMakeThreeEmptyTablesWithUniqueKeys) {
  createFrom(schemas::kRules);
  EXPECT_EQ(
      tables(),
      (Rows{"access_table: name_type INTEGER, name TEXT, type INTEGER, access INTEGER",
            "bcc_table: name TEXT, type INTEGER, bcc_to TEXT",
            "blackwhite_table: name_type INTEGER, name TEXT, type INTEGER, "
            "blackwhite INTEGER"}));
  EXPECT_EQ(indexes(),
            (Rows{"unique access_name_index on access_table: name_type, name, type",
                  "unique bcc_name_index on bcc_table: name, type",
                  "unique blackwhite_name_index on blackwhite_table: name_type, name, "
                  "type"}));
  for (const char *table : {"bcc_table", "access_table", "blackwhite_table"})
    EXPECT_EQ(rowsOf(kPath, std::string("select * from ") + table), Rows());
  EXPECT_EQ(journalMode(), "delete");
}

TEST_F(SchemasTest, AliasesMakeOneTableWithRoot) {
  createFrom(schemas::kAliasLocal);
  EXPECT_EQ(tables(), Rows{"alias_info_table: alias TEXT, member TEXT, type INTEGER"});
  EXPECT_EQ(indexes(), (Rows{"alias_index on alias_info_table: alias",
                             "member_index on alias_info_table: member",
                             "type_index on alias_info_table: type"}));
  EXPECT_EQ(rowsOf(kPath, "select * from alias_info_table;"), Rows{"root|admin|0"});
  EXPECT_EQ(journalMode(), "delete");
}

const Rows kLogIndexes = {"date_index on mail_log_table: date",
                          "from_index on mail_log_table: mail_from",
                          "message_index on mail_log_table: message_id",
                          "queue_index on mail_log_table: queue_id",
                          "size_index on mail_log_table: size",
                          "status_index on mail_log_table: status",
                          "to_index on mail_log_table: mail_to"};

const char kLogColumns[] =
    "mail_log_table: message_id TEXT, queue_id TEXT, date INTEGER, mail_from TEXT, "
    "mail_to TEXT, size INTEGER, status INTEGER";

TEST_F(SchemasTest, TheMailLogIsIndexedByEveryColumnAndWrittenAhead) {
  createFrom(schemas::kMailLog);
  EXPECT_EQ(tables(), (Rows{"config_table: key TEXT, value TEXT", kLogColumns}));
  Rows expected = kLogIndexes;
  expected.insert(expected.begin() + 2, "key_index on config_table: key");
  EXPECT_EQ(indexes(), expected);
  EXPECT_EQ(rowsOf(kPath, "select * from config_table;"), Rows{"version|1"});
  EXPECT_EQ(rowsOf(kPath, "select * from mail_log_table;"), Rows());
  EXPECT_EQ(journalMode(), "wal");
}

TEST_F(SchemasTest, TheEmptiedMailLogIsTheTableAlone) {
  createFrom(schemas::kMailLogTable);
  EXPECT_EQ(tables(), Rows{kLogColumns});
  EXPECT_EQ(indexes(), kLogIndexes);
  EXPECT_EQ(journalMode(), "delete");
}

TEST_F(SchemasTest, StatisticsHaveATableAScaleAndAreNotWrittenAhead) {
  createFrom(schemas::kStatistic);
  const std::string columns =
      ": time INTEGER, inbound_quantity INTEGER, outbound_quantity INTEGER, "
      "bounce_quantity INTEGER, inbound_bandwidth REAL, outbound_bandwidth REAL";
  EXPECT_EQ(tables(),
            (Rows{"config_table: key TEXT, value TEXT", "log_statistic_day" + columns,
                  "log_statistic_hour" + columns, "log_statistic_second" + columns}));
  EXPECT_EQ(indexes(), (Rows{"day_index on log_statistic_day: time",
                             "hour_index on log_statistic_hour: time",
                             "key_index on config_table: key",
                             "second_index on log_statistic_second: time"}));
  EXPECT_EQ(rowsOf(kPath, "select * from config_table;"), Rows{"version|1"});
  EXPECT_EQ(journalMode(), "delete");
}

}  // namespace
