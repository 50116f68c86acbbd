// The texts from which missing database files are created, one each, run as they
// stand by one sqlite3_exec(). Existing files were made with these very texts.

#ifndef POSTWELL_INTERNAL_SCHEMAS_H_
#define POSTWELL_INTERNAL_SCHEMAS_H_

// The indexed table of logged messages, which is also made anew on its own when the
// log is emptied.
#define MAIL_LOG_TABLE                                                                   \
  "create table mail_log_table(message_id TEXT, queue_id TEXT, date INTEGER, mail_from " \
  "TEXT, mail_to TEXT, size INTEGER, status INTEGER);CREATE INDEX message_index ON "     \
  "mail_log_table (message_id);CREATE INDEX queue_index ON mail_log_table "              \
  "(queue_id);CREATE INDEX date_index ON mail_log_table (date);CREATE INDEX from_index " \
  "ON mail_log_table (mail_from);CREATE INDEX to_index ON mail_log_table "               \
  "(mail_to);CREATE INDEX size_index ON mail_log_table (size);CREATE INDEX "             \
  "status_index ON mail_log_table (status);"

// One table of traffic counters.
#define STATISTIC_TABLE(name)                                               \
  "create table log_statistic_" name                                        \
  "(time INTEGER PRIMARY KEY, inbound_quantity INTEGER, outbound_quantity " \
  "INTEGER, bounce_quantity INTEGER, inbound_bandwidth REAL, outbound_bandwidth REAL);"

// The alias table with its one row; `member` is a literal with its SQL escapes.
#define ALIAS_SCHEMA(member)                                                           \
  "BEGIN TRANSACTION;create table alias_info_table(alias TEXT, member TEXT, type "     \
  "INTEGER);CREATE INDEX alias_index ON alias_info_table (alias);CREATE INDEX "        \
  "member_index ON alias_info_table (member);CREATE INDEX type_index ON "              \
  "alias_info_table (type);insert into alias_info_table (alias, member, type) values " \
  "('root', '" member "', 0);COMMIT TRANSACTION;"

namespace schemas {

// postwell.db, shared by three owners: the first to connect makes all three tables.
constexpr char kRules[] =
    "create table bcc_table(name TEXT, type INTEGER, bcc_to TEXT);create unique index "
    "bcc_name_index on bcc_table(name, type);create table access_table(name_type "
    "INTEGER, name TEXT, type INTEGER, access INTEGER);create unique index "
    "access_name_index on access_table(name_type, name, type);create table "
    "blackwhite_table(name_type INTEGER, name TEXT, type INTEGER, blackwhite "
    "INTEGER);create unique index blackwhite_name_index on blackwhite_table(name_type, "
    "name, type);";

// alias.db; which one, the account type decides. The last two are formats of
// sqlite3_snprintf().
constexpr char kAliasLocal[] = ALIAS_SCHEMA("admin");
constexpr char kAliasLdap[] = ALIAS_SCHEMA("admin@%q");
constexpr char kAliasWin[] = ALIAS_SCHEMA("%q\\Administrator");

// maillog.db, in write-ahead mode so that it can be read while the collector writes.
constexpr char kMailLog[] =
    "BEGIN TRANSACTION;" MAIL_LOG_TABLE
    "create table config_table(key TEXT, value TEXT);CREATE INDEX key_index ON "
    "config_table(key);INSERT INTO config_table VALUES('version','1');COMMIT "
    "TRANSACTION;PRAGMA journal_mode = WAL;";

// What emptying the log makes anew; config_table stays.
constexpr char kMailLogTable[] =
    "BEGIN TRANSACTION;" MAIL_LOG_TABLE "COMMIT TRANSACTION;";

// log_statistic.db.
constexpr char kStatistic[] =
    "BEGIN TRANSACTION;" STATISTIC_TABLE("second") STATISTIC_TABLE("hour")
        STATISTIC_TABLE("day")
    "CREATE INDEX second_index ON log_statistic_second (time);CREATE INDEX hour_index ON "
    "log_statistic_hour (time);CREATE INDEX day_index ON log_statistic_day (time);create "
    "table config_table(key TEXT, value TEXT);CREATE INDEX key_index ON "
    "config_table(key);INSERT INTO config_table(key, value) "
    "VALUES('version','1');COMMIT TRANSACTION;";

}  // namespace schemas

#undef MAIL_LOG_TABLE
#undef STATISTIC_TABLE
#undef ALIAS_SCHEMA

#endif  // POSTWELL_INTERNAL_SCHEMAS_H_
