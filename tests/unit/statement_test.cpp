// Statements as text and prepared. The first test has to be the first thing that this
// process asks of SQLite: loading the library must have initialised it.

#include "internal/statement.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "DBHandler.h"

namespace {

using internal::FixedSQL;
using internal::Statement;

const std::string kLong(900, 'x');

TEST(FixedSQL, ALongTextIsFormattedBeforeAnyConnection) {
  EXPECT_EQ(FixedSQL<1024>("select '%q';", kLong.c_str()).c_str(),
            "select '" + kLong + "';");
  // keeps the library linked, without a call that could initialise SQLite before
  EXPECT_EQ(DBHandler("/tmp/x.db", "").getErrCode(), -1);
}

TEST(FixedSQL, QuotesAreDoubled) {
  EXPECT_STREQ(FixedSQL<64>("'%q' '%d' %%", "o'hara", -7).c_str(), "'o''hara' '-7' %");
}

TEST(FixedSQL, ATextThatFillsItsBufferIsWhole) {
  EXPECT_EQ(FixedSQL<1024>("%s", std::string(1023, 'x').c_str()).c_str(),
            std::string(1023, 'x'));
}

struct Close {
  void operator()(sqlite3 *db) const { sqlite3_close(db); }
};

std::unique_ptr<sqlite3, Close> inMemory() {
  sqlite3 *db = nullptr;
  EXPECT_EQ(sqlite3_open(":memory:", &db), SQLITE_OK);
  return std::unique_ptr<sqlite3, Close>(db);
}

TEST(FixedSQL, ASemicolonAtTheEndMayBeLost) {
  const std::string most = "select '" + std::string(1014, 'x') + "'";
  ASSERT_EQ(most.size(), 1023u);
  EXPECT_EQ(FixedSQL<1024>("%s;", most.c_str()).c_str(), most);
  for (const std::string &longer : {most + " ", most + " ;", most + ";;", most + "; "})
    EXPECT_STREQ(FixedSQL<1024>("%s", longer.c_str()).c_str(), "statement too long");
}

TEST(FixedSQL, ALongerTextFailsWithCode1) {
  const auto db = inMemory();
  for (const size_t length : {1024u, 1025u, 5000u}) {
    const std::string sql = "select 1;" + std::string(length - 9, ' ');
    EXPECT_EQ(sqlite3_exec(db.get(), FixedSQL<1024>("%s", sql.c_str()).c_str(), nullptr,
                           nullptr, nullptr),
              SQLITE_ERROR)
        << length;
  }
}

TEST(StatementTest, GivesRowsThenDone) {
  const auto db = inMemory();
  Statement statement(db.get(), "select 'one', 1 union all select null, -2;");
  EXPECT_EQ(statement.code(), SQLITE_OK);
  EXPECT_TRUE(statement.next());
  EXPECT_STREQ(statement.text(0), "one");
  EXPECT_EQ(statement.integer(1), 1);
  EXPECT_TRUE(statement.next());
  EXPECT_EQ(statement.text(0), nullptr);
  EXPECT_EQ(statement.integer(1), -2);
  for (int i = 0; i < 2; i++) {
    EXPECT_FALSE(statement.next());
    EXPECT_EQ(statement.code(), SQLITE_DONE);
  }
}

TEST(StatementTest, KeepsTheCodeOfAFailure) {
  const auto db = inMemory();
  Statement wrong(db.get(), "nonsense;"), none(db.get(), nullptr);
  EXPECT_FALSE(wrong.next());
  EXPECT_EQ(wrong.code(), SQLITE_ERROR);
  EXPECT_FALSE(none.next());
  EXPECT_EQ(none.code(), SQLITE_NOMEM);
}

}  // namespace
