// postwell log list|search|show|count|clear|archives|stats.

#include <gtest/gtest.h>
#include <maillog.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "programs/run_program.h"
#include "programs/settings.h"
#include "support/database.h"
#include "support/mail_log.h"

namespace {

namespace fs = std::filesystem;

using Arguments = std::vector<std::string>;
using collector::kFolder;
using collector::kLog;
using collector::kStatistic;

const std::string kArchive1 = "maillog_20240131.db", kArchive2 = "maillog_20240131_1.db";

// A daemon as far as its name and its pid file tell.
class Daemon {
 public:
  Daemon(const char *name, std::string pidFile) : pidFile_(std::move(pidFile)) {
    int named[2];
    EXPECT_EQ(pipe(named), 0);
    pid_ = fork();
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      prctl(PR_SET_NAME, name);
      close(named[0]);
      close(named[1]);
      for (;;) pause();
    }
    close(named[1]);
    char byte;
    EXPECT_EQ(read(named[0], &byte, 1), 0);  // closed: it has its name
    close(named[0]);
    fs::create_directories(fs::path(pidFile_).parent_path());
    writeFile(pidFile_, std::to_string(pid_) + "\n");
  }
  ~Daemon() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    unlink(pidFile_.c_str());
  }
  Daemon(const Daemon &) = delete;
  Daemon &operator=(const Daemon &) = delete;

 private:
  std::string pidFile_;
  pid_t pid_;
};

class PostwellLog : public testing::Test {
 protected:
  PostwellLog()
      : collector_("maillogd", "/run/postwell/maillogd.pid"),
        feed_("mailfeed", "/run/postwell/mailfeed/mailfeed.pid") {
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    make(kLog);
  }

  static void make(const std::string &path) {
    EXPECT_EQ(MailLog(path.c_str()).error(), 0);
  }

  static void runSQL(const std::string &path, const std::string &sql) {
    ASSERT_EQ(database::Connection(path).run(sql), 0) << sql;
  }

  static std::string quoted(const std::string &text) {
    std::string result = "'";
    for (const char c : text) result += std::string(c == '\'' ? 2 : 1, c);
    return result + '\'';
  }

  static void store(const std::string &id, time_t date, const std::string &from,
                    const std::string &to, int size, int status,
                    const std::string &path = kLog) {
    runSQL(path, "insert into mail_log_table values(" + quoted(id) + ", 'q', " +
                     std::to_string(date) + ", " + quoted(from) + ", " + quoted(to) +
                     ", " + std::to_string(size) + ", " + std::to_string(status) + ");");
  }

  // Three mails of 2024-01-31 in the live log.
  static void storeThree() {
    store("<1@x>", 1706700000, "amy@a.example", "bob@b.example", 1000, 0);
    store("<2@x>", 1706703600, "joe@c.example", "amy@a.example", 2000, 1);
    store("<3@x>", 1706707200, "", "joe@c.example", 3000, 2);
  }

  static Outcome run(const Arguments &arguments, const std::string &input = "") {
    Arguments words{"log"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return RUN_TEST_PROGRAM(words, input);
  }

  static Outcome onTerminal(const Arguments &arguments, const std::string &input = "") {
    Arguments words{"log"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return RUN_TEST_PROGRAM_ON_TERMINAL(words, input);
  }

  // The Message-IDs that a command lists, one behind the other.
  static std::string ids(const Arguments &arguments) {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    std::string found;
    std::istringstream lines(outcome.out);
    for (std::string line; std::getline(lines, line);)
      found += line.substr(line.rfind(' ') + 1);
    return found;
  }

  static void expectRefused(const Arguments &arguments, int status,
                            const std::string &message) {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, status) << testing::PrintToString(arguments);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err.rfind("postwell: " + message, 0), 0u) << outcome.err;
  }

  PackageTree package_;
  Daemon collector_, feed_;
};

// ---- list

TEST_F(PostwellLog, ListPrintsLocalTimesWithTheirOffset) {
  storeThree();
  const Outcome outcome = run({"list"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(
      outcome.out,
      "2024-01-31 12:20:00 +0100  sent          1000  amy@a.example -> "
      "bob@b.example  <1@x>\n"
      "2024-01-31 13:20:00 +0100  received      2000  joe@c.example -> "
      "amy@a.example  <2@x>\n"
      "2024-01-31 14:20:00 +0100  bounced       3000  <> -> joe@c.example  <3@x>\n");
}

TEST_F(PostwellLog, JsonHasUtcTimes) {
  storeThree();
  store("<4@x>", 1717243200, "a", "b", 4, 7);
  EXPECT_EQ(run({"list", "--json", "--offset", "2"}).out,
            R"([
  {"time":"2024-01-31T13:20:00Z","status":"bounced","size":3000,"from":"","to":"joe@c.example","message_id":"<3@x>"},
  {"time":"2024-06-01T12:00:00Z","status":"status 7","size":4,"from":"a","to":"b","message_id":"<4@x>"}
]
)");
  EXPECT_EQ(run({"list", "--json", "--from", "nobody"}).out, "[]\n");
}

TEST_F(PostwellLog, TimesOfTheHourThatOccursTwiceKeepTheirOffset) {
  store("a", 1729987200, "", "", 0, 0);  // 2024-10-27 00:00:00 UTC
  store("b", 1729990800, "", "", 0, 0);
  EXPECT_EQ(run({"list", "--json"}).out.find("2024-10-27T01:00:00Z") != std::string::npos,
            true);
  const std::string out = run({"list"}).out;
  EXPECT_EQ(out.substr(0, 25), "2024-10-27 02:00:00 +0200");
  EXPECT_EQ(out.substr(out.find('\n') + 1, 25), "2024-10-27 02:00:00 +0100");
}

TEST_F(PostwellLog, ConditionsNarrowTheList) {
  storeThree();
  EXPECT_EQ(ids({"list", "--from", "AMY@"}), "<1@x>");
  EXPECT_EQ(ids({"list", "--to", "amy"}), "<2@x>");
  EXPECT_EQ(ids({"list", "--message-id", "3@"}), "<3@x>");
  EXPECT_EQ(ids({"list", "--status", "sent"}), "<1@x>");
  EXPECT_EQ(ids({"list", "--status", "received"}), "<2@x>");
  EXPECT_EQ(ids({"list", "--status", "bounced"}), "<3@x>");
  EXPECT_EQ(ids({"list", "--status", "resent"}), "");
  EXPECT_EQ(ids({"list", "--larger", "2000"}), "<3@x>");
  EXPECT_EQ(ids({"list", "--larger", "1K"}), "<2@x><3@x>");
  EXPECT_EQ(ids({"list", "--smaller", "2000"}), "<1@x>");
  EXPECT_EQ(ids({"list", "--smaller", "1M"}), "<1@x><2@x><3@x>");
  EXPECT_EQ(ids({"list", "--larger", "1000", "--smaller", "3000"}), "<2@x>");
  EXPECT_EQ(ids({"list", "--from", "example", "--to", "example", "--status", "sent",
                 "--larger", "999", "--since", "2024-01-31", "--until", "2024-01-31"}),
            "<1@x>");
}

TEST_F(PostwellLog, TimesAreInclusiveAndADayIsALocalOne) {
  storeThree();
  EXPECT_EQ(ids({"list", "--since", "2024-01-31 13:20"}), "<2@x><3@x>");
  EXPECT_EQ(ids({"list", "--since", "2024-01-31T13:20:01"}), "<3@x>");
  EXPECT_EQ(ids({"list", "--until", "2024-01-31T12:20:00Z"}), "<1@x><2@x>");
  EXPECT_EQ(ids({"list", "--until", "2024-01-31 16:49:59 +0530"}), "");
  EXPECT_EQ(ids({"list", "--until", "2024-01-31 16:50:00+0530"}), "<1@x>");
  EXPECT_EQ(ids({"list", "--since", "2024-02-01"}), "");
  EXPECT_EQ(ids({"list", "--until", "2024-01-30"}), "");
  EXPECT_EQ(ids({"list", "--until", "1970-01-01T00:00:00Z"}), "");
  EXPECT_EQ(ids({"list", "--since", "2024-01-31", "--until", "2024-01-31"}),
            "<1@x><2@x><3@x>");
}

TEST_F(PostwellLog, TheSecondBefore1970IsATimeLikeAnyOther) {
  store("before", -2, "", "", 0, 0);
  store("at", -1, "", "", 0, 0);
  store("after", 0, "", "", 0, 0);
  EXPECT_EQ(ids({"list", "--since", "1970-01-01 00:59:59"}), "atafter");
  EXPECT_EQ(ids({"list", "--until", "1969-12-31T23:59:58Z"}), "before");
  EXPECT_EQ(ids({"list", "--until", "1969-12-31T23:59:59Z"}), "beforeat");
}

TEST_F(PostwellLog, RelativeTimesCountFromNow) {
  const time_t now = time(nullptr);
  store("old", now - 3 * 86400, "", "", 0, 0);
  store("recent", now - 5400, "", "", 0, 0);
  EXPECT_EQ(ids({"list", "--since", "-2h"}), "recent");
  EXPECT_EQ(ids({"list", "--since=-120m"}), "recent");
  EXPECT_EQ(ids({"list", "--since", "2 hours ago"}), "recent");
  EXPECT_EQ(ids({"list", "--since", "1h ago"}), "");
  EXPECT_EQ(ids({"list", "--until", "1 Day ago"}), "old");
  EXPECT_EQ(ids({"list", "--until", "-1w"}), "");
  EXPECT_EQ(ids({"list", "--until", "now"}), "oldrecent");
  EXPECT_EQ(ids({"list", "--until", "today"}), "oldrecent");
  EXPECT_EQ(ids({"list", "--until", "yesterday"}).substr(0, 3), "old");
}

TEST_F(PostwellLog, WrongValuesAreRefused) {
  for (const std::string time :
       {"soon", "2024-02-30", "2024-13-01", "2024-01-31 25:00", "2h", "-2h ago", "-2x",
        "99999999h ago", "2024-01-31'", "1706700000", "2024-01-31 24:00",
        "2024-01-31 12:00 +24:00", "2024-01-31T12:00-00:60", "2024-01-31\n"})
    expectRefused({"list", "--since=" + time}, 2, "--since: must be a time such as ");
  expectRefused({"list", "--since="}, 2, "--since needs a value: TIME\n");
  expectRefused({"list", "--status", "lost"}, 2,
                "--status: must be sent, received, bounced or resent, not \"lost\"");
  for (const std::string size : {"K", "-1", "2048M", "1G", "1.5K", "9999999999999999999"})
    expectRefused({"list", "--larger=" + size}, 2,
                  "--larger: must be a number of bytes below 2048M such as 500, 10K or "
                  "5M, not \"" +
                      size + "\"");
  expectRefused({"list", "--from", ""}, 2, "--from: must not be empty");
  expectRefused({"list", "--limit", "-2"}, 2, "--limit: must be a whole number from -1");
  expectRefused({"list", "--offset", "-1"}, 2, "--offset: must be a whole number from 0");
  expectRefused({"list", "--all", "--archive", kArchive1}, 2, "--all excludes --archive");
}

TEST_F(PostwellLog, EntriesAreSortedByEachColumn) {
  storeThree();
  EXPECT_EQ(ids({"list", "--desc"}), "<3@x><2@x><1@x>");
  EXPECT_EQ(ids({"list", "--sort", "from"}), "<3@x><1@x><2@x>");
  EXPECT_EQ(ids({"list", "--sort", "to"}), "<2@x><1@x><3@x>");
  EXPECT_EQ(ids({"list", "--sort", "size", "--desc"}), "<3@x><2@x><1@x>");
  EXPECT_EQ(ids({"list", "--sort", "status", "--desc"}), "<3@x><2@x><1@x>");
  EXPECT_EQ(ids({"list", "--sort", "message-id", "--desc"}), "<3@x><2@x><1@x>");
  EXPECT_EQ(ids({"list", "--sort", "date", "--limit", "1", "--offset", "1"}), "<2@x>");
}

TEST_F(PostwellLog, FiftyEntriesAreListedUnlessToldOtherwise) {
  runSQL(kLog,
         "with recursive n(i) as (select 1 union all select i + 1 from n where i < 60) "
         "insert into mail_log_table select i || ',', '', i, 'a', 'b', 0, 0 from n;");
  const Outcome first = run({"list"});
  EXPECT_EQ(std::count(first.out.begin(), first.out.end(), '\n'), 50);
  EXPECT_EQ(first.err,
            "postwell: there are more; --limit and --offset show them, --desc begins at "
            "the end.\n");
  EXPECT_EQ(run({"list", "--limit", "50"}).err, "");
  EXPECT_EQ(run({"list", "--offset", "10"}).err, "");
  const Outcome all = run({"list", "--limit", "-1"});
  EXPECT_EQ(std::count(all.out.begin(), all.out.end(), '\n'), 60);
  EXPECT_EQ(ids({"list", "--limit", "2", "--offset", "58"}), "59,60,");
  EXPECT_EQ(ids({"list", "--limit", "2147483646", "--offset", "2147483647"}), "");
}

TEST_F(PostwellLog, AnOffsetBeyondTheEndSaysSo) {
  storeThree();
  const std::string only3 = "postwell: --offset is beyond the end; there are only 3.\n";
  for (const Arguments &more :
       {Arguments{}, Arguments{"--all"}, Arguments{"--larger", "1", "--smaller", "1M"}}) {
    Arguments words{"list", "--offset", "3"};
    words.insert(words.end(), more.begin(), more.end());
    const Outcome outcome = run(words);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, only3);
  }
  EXPECT_EQ(run({"list", "--offset", "2"}).err, "");
  EXPECT_EQ(run({"search", "amy", "--offset", "9"}).err,
            "postwell: --offset is beyond the end; there are only 2.\n");
  EXPECT_EQ(run({"list", "--from", "nobody", "--offset", "9"}).err,
            "postwell: no entry is like that; last record at 2024-01-31 14:20:00 "
            "+0100.\n");
}

// Whoever leaves entries out, the library or the tool.
TEST_F(PostwellLog, PagesOfEveryKindOfQueryFollowEachOther) {
  storeThree();
  store("<4@x>", 1706710800, "amy@a.example", "eve@e.example", 4000, 3);
  const std::vector<Arguments> kinds = {{"list"},
                                        {"list", "--all"},
                                        {"list", "--desc"},
                                        {"list", "--larger", "1", "--smaller", "1M"},
                                        {"search", "x"},
                                        {"search", "@x", "--until", "now"},
                                        {"search", "x", "--sort", "size", "--desc"}};
  for (const Arguments &kind : kinds) {
    const std::string whole = ids(kind);
    EXPECT_EQ(whole.size(), 20u);
    for (const int size : {1, 3}) {
      std::string pages;
      for (int offset = 0; offset < 4; offset += size) {
        Arguments words = kind;
        for (const std::string &word : {std::string("--limit"), std::to_string(size),
                                        std::string("--offset"), std::to_string(offset)})
          words.push_back(word);
        pages += ids(words);
      }
      EXPECT_EQ(pages, whole) << testing::PrintToString(kind) << size;
    }
    Arguments rest = kind;
    for (const char *word : {"--limit", "-1", "--offset", "1"}) rest.push_back(word);
    EXPECT_EQ(ids(rest), whole.substr(5));
  }
}

TEST_F(PostwellLog, ColumnsDoNotRunIntoEachOther) {
  store("a", 1, "f", "t", 0, -2147483647);
  runSQL(kLog, "update mail_log_table set size = 2147483647;");
  EXPECT_EQ(run({"list"}).out,
            "1970-01-01 01:00:01 +0100  status -2147483647 2147483647  f -> t  a\n");
}

// ---- texts

TEST_F(PostwellLog, PercentAndUnderscoreAreFoundLiterally) {
  store("a_b", 1, "", "", 0, 0);
  store("axb", 2, "", "", 0, 0);
  store("100%", 3, "", "", 0, 0);
  EXPECT_EQ(ids({"list", "--message-id", "A_B"}), "a_b");
  EXPECT_EQ(ids({"search", "_"}), "a_b");
  EXPECT_EQ(ids({"search", "%"}), "100%");
  EXPECT_EQ(run({"count", "--message-id", "_"}).out, "1\n");
  EXPECT_EQ(run({"count", "x%"}).out, "0\n");
  EXPECT_EQ(ids({"list", "--message-id", "_", "--limit", "1", "--offset", "1"}), "");
}

TEST_F(PostwellLog, TextsMayHoldAnything) {
  const std::string nothing(500, 'n');
  for (const std::string &text :
       {std::string("o'hara"), std::string("x' or '1'='1"),
        std::string("'; drop table mail_log_table; --"), std::string("J\xc3\xb6rg"),
        std::string("\"\\"), std::string("two words"), std::string(500, '\''),
        nothing + std::string(500, '_') + "end"}) {
    store("<" + text + ">", 1, text, text, 0, 0);
    for (const Arguments &sought :
         std::vector<Arguments>{{"--from", text},
                                {"--to", text},
                                {"--message-id", text},
                                {"--message-id", "<" + text + ">", "--status", "sent"},
                                {text}})
      for (const char *verb : {"count", "search"}) {
        if (verb == std::string("search") && sought.size() != 1) continue;
        Arguments words{verb};
        words.insert(words.end(), sought.begin(), sought.end());
        const Outcome outcome = run(words);
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(std::count(outcome.out.begin(), outcome.out.end(), '\n'), 1) << text;
        if (verb == std::string("count")) {
          EXPECT_EQ(outcome.out, "1\n") << text;
        }
      }
  }
  EXPECT_EQ(run({"count"}).out, "8\n");
}

TEST_F(PostwellLog, ATextOf2000CharactersIsComparedWhole) {
  const std::string text(2000, 'k');
  store(text, 1, "", "", 0, 0);
  EXPECT_EQ(run({"count", "--message-id", text}).out, "1\n");
  EXPECT_EQ(run({"count", text}).out, "1\n");
  EXPECT_EQ(run({"count", "--message-id", text + "k"}).out, "0\n");
  EXPECT_EQ(run({"count", "--message-id", text.substr(0, 1999) + "x"}).out, "0\n");
  std::string umlauts;
  while (umlauts.size() < 2000) umlauts += "\xc3\xb6";
  store(umlauts, 1, "", "", 0, 0);
  store('x' + umlauts, 1, "", "", 0, 0);  // cut in the middle of one
  EXPECT_EQ(run({"count", "--message-id", umlauts}).out, "2\n");
  EXPECT_EQ(run({"count", "--message-id", 'x' + umlauts}).out, "1\n");
}

TEST_F(PostwellLog, NothingReachesTheTerminalUnescaped) {
  store("\x1b[31m", 1, "J\xc3\xb6rg\n", "\x9b\x7f", 0, 0);
  EXPECT_EQ(run({"list"}).out,
            "1970-01-01 01:00:01 +0100  sent             0  J\\xc3\\xb6rg\\x0a -> "
            "\\x9b\\x7f  \\x1b[31m\n");
  EXPECT_EQ(
      run({"list", "--json"}).out,
      "[\n  {\"time\":\"1970-01-01T00:00:01Z\",\"status\":\"sent\",\"size\":0,"
      "\"from\":\"J\\u00f6rg\\n\",\"to\":\"\\ufffd\\u007f\",\"message_id\":\"\\u001b["
      "31m\"}\n]\n");
}

TEST_F(PostwellLog, SQLInAnyOptionIsRefusedOrFindsNothing) {
  storeThree();
  const std::string sql = "x' or 1=1; drop table mail_log_table; --";
  for (const char *option : {"--from", "--to", "--message-id"})
    EXPECT_EQ(ids({"list", option, sql}), "");
  EXPECT_EQ(ids({"search", sql}), "");
  EXPECT_EQ(ids({"show", sql}), "");
  for (const std::string column :
       {"date; drop table mail_log_table", "1", "rowid", "(select 1)", "date desc"})
    expectRefused({"list", "--sort", column}, 2,
                  "--sort: must be date, from, to, size, status or message-id");
  for (const char *option : {"--status", "--since", "--until", "--larger", "--smaller",
                             "--limit", "--offset", "--sort"})
    expectRefused({"list", option, sql}, 2, option);
  for (const char *option : {"--period", "--until"})
    expectRefused({"stats", option, sql}, 2, option);
  expectRefused({"list", "--archive", sql}, 2, "there is no saved log");
  EXPECT_EQ(run({"count"}).out, "3\n");
}

// ---- search, show, count

TEST_F(PostwellLog, SearchLooksIntoIdSenderAndRecipient) {
  storeThree();
  EXPECT_EQ(ids({"search", "amy"}), "<1@x><2@x>");
  EXPECT_EQ(ids({"search", "@X>", "--desc", "--limit", "1"}), "<3@x>");
  EXPECT_EQ(ids({"search", "joe@c", "--status", "bounced"}), "<3@x>");
  EXPECT_EQ(ids({"search", "amy", "--since", "2024-01-31 13:00"}), "<2@x>");
  EXPECT_EQ(run({"search"}).status, 2);
}

TEST_F(PostwellLog, ShowTellsWhatBecameOfOneMessage) {
  storeThree();
  store("<1@x>", 1706700060, "amy@a.example", "eve@e.example", 1000, 3);
  store("<11@x>", 1706700061, "", "", 1, 0);
  EXPECT_EQ(run({"show", "<1@x>"}).out,
            "2024-01-31 12:20:00 +0100  sent          1000  amy@a.example -> "
            "bob@b.example  <1@x>\n"
            "2024-01-31 12:21:00 +0100  resent        1000  amy@a.example -> "
            "eve@e.example  <1@x>\n");
  EXPECT_EQ(ids({"show", "1@x"}), "<1@x><1@x>");
  const Outcome none = run({"show", "1@"});
  EXPECT_EQ(none.out, "");
  EXPECT_EQ(none.err,
            "postwell: no entry is like that; last record at 2024-01-31 14:20:00 "
            "+0100.\n");
}

TEST_F(PostwellLog, Count) {
  storeThree();
  EXPECT_EQ(run({"count"}).out, "3\n");
  EXPECT_EQ(run({"count", "--json"}).out, "{\"count\":3}\n");
  EXPECT_EQ(run({"count", "amy"}).out, "2\n");
  EXPECT_EQ(run({"count", "amy", "--status", "sent"}).out, "1\n");
  EXPECT_EQ(run({"count", "--status", "bounced"}).out, "1\n");
}

// ---- saved logs

TEST_F(PostwellLog, AllLogsAreReadInTimeOrder) {
  for (const std::string &name : {kArchive1, kArchive2}) make(kFolder + name);
  store("1", 100, "z", "", 9, 0, kFolder + kArchive1);
  store("3", 300, "y", "", 7, 0, kFolder + kArchive1);
  store("2", 200, "x", "", 5, 0, kFolder + kArchive2);
  store("4", 400, "w", "", 3, 0, kFolder + kArchive2);
  store("3b", 300, "v", "", 1, 0);
  store("5", 500, "u", "", 2, 0);
  EXPECT_EQ(ids({"list"}), "3b5");
  EXPECT_EQ(ids({"list", "--archive", kArchive2}), "24");
  EXPECT_EQ(ids({"list", "--all"}), "1233b45");
  EXPECT_EQ(ids({"list", "--all", "--desc"}), "543b321");
  EXPECT_EQ(ids({"list", "--all", "--limit", "2", "--offset", "1"}), "23");
  EXPECT_EQ(ids({"list", "--all", "--sort", "size", "--limit", "3"}), "3b54");
  EXPECT_EQ(ids({"list", "--all", "--sort", "from", "--desc"}), "13243b5");
  EXPECT_EQ(ids({"search", "3", "--all"}), "33b");
  EXPECT_EQ(run({"count", "--all"}).out, "6\n");
  EXPECT_EQ(run({"count", "--all", "--smaller", "4"}).out, "3\n");
}

TEST_F(PostwellLog, Archives) {
  for (const std::string &name : {kArchive2, kArchive1}) make(kFolder + name);
  store("1", 1706700000, "", "", 0, 0, kFolder + kArchive1);
  store("2", 1706700060, "", "", 0, 0, kFolder + kArchive1);
  for (const char *other : {"maillog_x.db", "maillog_20240131.db.bak", "maillog_1.db",
                            "maillog_20240131_2.db"})
    writeFile(kFolder + other, "");
  EXPECT_EQ(run({"archives"}).out,
            "maillog_20240131.db           2  2024-01-31 12:20:00 +0100 to 2024-01-31 "
            "12:21:00 +0100\n"
            "maillog_20240131_1.db         0\n");
  EXPECT_EQ(run({"archives", "--json"}).out,
            "[\n  {\"name\":\"maillog_20240131.db\",\"entries\":2,\"first\":\"2024-01-"
            "31T11:20:00Z\",\"last\":\"2024-01-31T11:21:00Z\"},\n"
            "  {\"name\":\"maillog_20240131_1.db\",\"entries\":0,\"first\":\"\",\"last\":"
            "\"\"}\n]\n");
}

// Makes one of three saved logs unreadable, each with an entry of its name's number.
class PostwellLogWithABadOne : public PostwellLog {
 protected:
  PostwellLogWithABadOne() {
    for (int i = 1; i <= 3; i++) {
      make(pathOf(i));
      store(std::to_string(i), 1706700000 + i, "", "", 0, 0, pathOf(i));
    }
    store("4", 1706700004, "", "", 0, 0);
    runSQL(pathOf(2), "alter table mail_log_table rename to gone;");
  }

  static std::string pathOf(int number) {
    return kFolder + "maillog_2024013" + std::to_string(number) + ".db";
  }

  const std::string told_ =
      "postwell: cannot read " + pathOf(2) + "; the system log tells why.\n";
};

TEST_F(PostwellLogWithABadOne, ArchivesPrintsTheOthersWhole) {
  const Outcome outcome = run({"archives"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out,
            "maillog_20240131.db         1  2024-01-31 12:20:01 +0100 to 2024-01-31 "
            "12:20:01 +0100\n"
            "maillog_20240133.db         1  2024-01-31 12:20:03 +0100 to 2024-01-31 "
            "12:20:03 +0100\n");
  EXPECT_EQ(outcome.err, told_ + "postwell: not every saved log could be read.\n");
  const Outcome json = run({"archives", "--json"});
  EXPECT_EQ(json.status, 1);
  EXPECT_EQ(json.out,
            "[\n  {\"name\":\"maillog_20240131.db\",\"entries\":1,\"first\":\"2024-01-"
            "31T11:20:01Z\",\"last\":\"2024-01-31T11:20:01Z\"},\n"
            "  {\"name\":\"maillog_20240133.db\",\"entries\":1,\"first\":\"2024-01-31T11:"
            "20:03Z\",\"last\":\"2024-01-31T11:20:03Z\"}\n]\n");
}

TEST_F(PostwellLogWithABadOne, AllTheOthersAreReadAndTheBadOneIsNamedOnce) {
  const std::string leftOut =
      "postwell: left out, because of the above: maillog_20240132.db\n";
  for (const Arguments &order : {Arguments{}, Arguments{"--desc"}}) {
    Arguments words{"list", "--all", "--json"};
    words.insert(words.end(), order.begin(), order.end());
    const Outcome outcome = run(words);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(std::count(outcome.out.begin(), outcome.out.end(), '\n'), 5);
    EXPECT_EQ(outcome.out.substr(outcome.out.size() - 4), "}\n]\n");
    EXPECT_EQ(outcome.err, told_ + leftOut);
  }
  const Outcome number = run({"count", "--all"});
  EXPECT_EQ(number.status, 1);
  EXPECT_EQ(number.out, "3\n");
  EXPECT_EQ(number.err, told_ + leftOut);
  const Outcome none = run({"show", "nobody", "--all"});
  EXPECT_EQ(none.status, 1);
  EXPECT_EQ(none.err, told_ +
                          "postwell: no entry is like that; last record at 2024-01-31 "
                          "12:20:04 +0100.\n" +
                          leftOut);
  EXPECT_EQ(ids({"list"}), "4");
  EXPECT_EQ(ids({"list", "--archive", "maillog_20240133.db"}), "3");
  expectRefused({"list", "--archive", "maillog_20240132.db"}, 1, "cannot read ");
}

TEST_F(PostwellLogWithABadOne, OneThatMayNotBeOpenedIsLeftOutLikewise) {
  ASSERT_EQ(chmod(pathOf(3).c_str(), 0), 0);
  writeFile(pathOf(1), std::string(4096, 'x'));
  const Outcome outcome = run({"count", "--all"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "1\n");
  EXPECT_EQ(outcome.err,
            "postwell: cannot read " + pathOf(1) + "; the system log tells why.\n" +
                told_ + "postwell: cannot open " + pathOf(3) +
                ": Permission denied.\nRun as root.\n"
                "postwell: left out, because of the above: maillog_20240131.db "
                "maillog_20240132.db maillog_20240133.db\n");
}

TEST_F(PostwellLogWithABadOne, AFolderThatMayNotBeOpenedHasNoLogsToTellOf) {
  const std::string folder = "/var/packages/Postwell/target/etc/maillog";
  ASSERT_EQ(chmod(folder.c_str(), 0), 0);
  const Outcome outcome = run({"archives"});
  ASSERT_EQ(chmod(folder.c_str(), 0700), 0);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err,
            "postwell: cannot open " + folder + "/: Permission denied.\nRun as root.\n");
}

TEST_F(PostwellLogWithABadOne, ABadLiveLogLeavesTheSavedOnes) {
  runSQL(kLog, "drop table mail_log_table;");
  const Outcome outcome = run({"count", "--all"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "2\n");
  EXPECT_NE(outcome.err.find("above: maillog.db maillog_20240132.db\n"),
            std::string::npos)
      << outcome.err;
}

TEST_F(PostwellLog, OnlyTheFoldersSavedLogsAreArchives) {
  make(kFolder + kArchive1);
  make("/tmp/maillog_20240131.db");
  for (const std::string name :
       {"maillog.db", "../maillog/maillog_20240131.db", "/tmp/maillog_20240131.db",
        "./maillog_20240131.db", "maillog_20240132.db", "maillog_20240131"})
    expectRefused({"list", "--archive", name}, 2,
                  "there is no saved log \"" + name + "\"");
}

// ---- where there is nothing

// What lies in the folder.
Arguments folder() {
  Arguments names;
  for (const auto &entry : fs::directory_iterator(kFolder))
    names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

TEST_F(PostwellLog, AnEmptyLogSaysSo) {
  const Outcome outcome = run({"list"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "postwell: the log is empty.\n");
}

TEST_F(PostwellLog, LookingAtAMissingLogMakesNone) {
  for (const auto &entry : fs::directory_iterator(kFolder)) fs::remove(entry.path());
  unlink(kStatistic.c_str());
  for (const Arguments &command : std::vector<Arguments>{
           {"list"}, {"count"}, {"search", "x"}, {"show", "x"}, {"list", "--all"}}) {
    const Outcome outcome = run(command);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "postwell: the log is empty.\n");
  }
  EXPECT_EQ(run({"archives"}).err, "postwell: there is no saved log.\n");
  expectRefused({"stats"}, 1, "there is no mail log yet; maillogd makes it.");
  EXPECT_EQ(run({"clear", "--yes"}).out,
            "There is no live log, so there is nothing to clear.\n");
  EXPECT_EQ(folder(), Arguments());
  EXPECT_FALSE(fileExists(kStatistic));
  fs::remove(kFolder.substr(0, kFolder.size() - 1));
  EXPECT_EQ(run({"list", "--all"}).err, "postwell: the log is empty.\n");
  EXPECT_FALSE(fileExists(kFolder));
}

TEST_F(PostwellLog, MissingStatisticsAreNotMadeEither) {
  unlink(kStatistic.c_str());
  expectRefused({"list"}, 1, kStatistic + " is missing");
  EXPECT_FALSE(fileExists(kStatistic));
}

TEST_F(PostwellLog, ALogThatWasMovedAsideIsPointedTo) {
  store("1", 1, "", "", 0, 0);
  runSQL(kLog, "pragma wal_checkpoint(truncate);");
  fs::rename(kLog, kFolder + kArchive1);
  for (const char *end : {"-wal", "-shm"}) unlink((kLog + end).c_str());
  EXPECT_EQ(run({"list"}).err,
            "postwell: the live log is empty; 1 saved log can be read with --all.\n");
  EXPECT_EQ(ids({"list", "--all"}), "1");
  EXPECT_EQ(run({"stats"}).status, 0);
  EXPECT_FALSE(fileExists(kLog));
}

TEST_F(PostwellLog, ADaemonThatDoesNotRunIsNamed) {
  storeThree();
  const std::string pidFile = "/run/postwell/maillogd.pid";
  const std::string noDaemon =
      "postwell: maillogd is not running, so nothing is stored.\n";
  const std::string noFeed =
      "postwell: mailfeed is not running, so nothing new comes in.\n";
  writeFile(pidFile, std::to_string(getpid()) + "\n");  // another program's now
  const std::string last = "postwell: last record at 2024-01-31 14:20:00 +0100.\n";
  EXPECT_EQ(run({"list"}).err, noDaemon + last);
  EXPECT_EQ(run({"list", "--desc", "--limit", "1", "--all"}).err, noDaemon + last);
  EXPECT_EQ(run({"list", "--from", "nobody"}).err,
            "postwell: no entry is like that; last record at 2024-01-31 14:20:00 "
            "+0100.\n" +
                noDaemon);
  unlink("/run/postwell/mailfeed/mailfeed.pid");
  EXPECT_EQ(run({"count"}).err, noDaemon + noFeed + last);
  for (const char *form : {"--json", "--csv", "--bars"}) {
    const Outcome stats = run({"stats", form});
    EXPECT_EQ(stats.status, 0);
    EXPECT_EQ(stats.err, noDaemon + noFeed);
    EXPECT_EQ(stats.out.find("running"), std::string::npos);
  }
  make(kFolder + kArchive1);
  EXPECT_EQ(run({"list", "--archive", kArchive1}).err, "postwell: the log is empty.\n");
}

TEST_F(PostwellLog, ADamagedLogReadsAsEmptyAndIsToldOf) {
  storeThree();
  runSQL(kLog, "pragma wal_checkpoint(truncate);");
  database::spoilSchema(kLog);
  const Outcome outcome = run({"list"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "postwell: " + kLog +
                             " was damaged and has been\nmade anew; what it held is "
                             "lost.\npostwell: the log is empty.\n");
  storeThree();
  EXPECT_EQ(run({"count"}).out, "3\n");
}

TEST_F(PostwellLog, ALogThatCannotBeReadFails) {
  runSQL(kLog, "drop table mail_log_table;");
  expectRefused({"list"}, 1, "cannot read " + kLog + "; the system log tells why.");
  expectRefused({"count"}, 1, "cannot read " + kLog + "; the system log tells why.");
  ASSERT_EQ(chmod(kLog.c_str(), 0444), 0);
  expectRefused({"list"}, 1,
                "cannot open " + kLog + ": Permission denied.\nRun as root.");
}

// ---- standard streams

TEST_F(PostwellLog, OutputThatCannotBeWrittenFails) {
  storeThree();
  const std::string message = "postwell: cannot write to standard output\n";
  for (const char *verb : {"list", "count", "stats"}) {
    const Outcome outcome = RUN_TEST_PROGRAM({"log", verb}, "", "/dev/full");
    EXPECT_EQ(outcome.status, 1) << verb;
    EXPECT_EQ(outcome.err, message) << verb;
  }
}

// A file that got the number of a closed stream would be written into.
TEST_F(PostwellLog, ClosedStreamsCostNoLog) {
  storeThree();
  runSQL(kLog, "pragma wal_checkpoint(truncate);");
  const auto shell = [](const std::string &rest) {
    return runNative("/bin/sh", {"-c", "exec " TEST_SHELL_PROGRAM " log " + rest});
  };
  EXPECT_EQ(shell("list >&-").status, 1);
  EXPECT_EQ(shell("count >&- 2>&- <&-").status, 1);
  database::spoilSchema(kStatistic);  // of which is told while the log is open
  EXPECT_EQ(shell("stats 2>&-").status, 0);
  EXPECT_EQ(readFile(kLog).substr(0, 15), "SQLite format 3");
  EXPECT_EQ(run({"count"}).out, "3\n");
}

// ---- clear

TEST_F(PostwellLog, ClearAsksOrTakesYes) {
  storeThree();
  expectRefused({"clear"}, 2, "add --yes to clear the log without being asked");
  EXPECT_EQ(run({"count"}).out, "3\n");
  const Outcome outcome = run({"clear", "--yes"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out,
            "The live log is empty now; saved logs and statistics are kept.\n");
  EXPECT_EQ(run({"count"}).out, "0\n");
}

TEST_F(PostwellLog, ClearDoesAsItIsAnsweredOnATerminal) {
  const std::string question = "Remove all entries of the live log? [y/N] ";
  storeThree();
  for (const char *answer : {"n\n", "\n", "yess\n", "", " y\n"}) {
    const Outcome outcome = onTerminal({"clear"}, answer);
    EXPECT_EQ(outcome.status, 1) << answer;
    EXPECT_EQ(outcome.out, question);
    EXPECT_EQ(outcome.err, "postwell: nothing was changed\n");
  }
  EXPECT_EQ(run({"count"}).out, "3\n");
  for (const char *answer : {"y\n", "YES\n"}) {
    const Outcome outcome = onTerminal({"clear"}, answer);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(
        outcome.out,
        question + "The live log is empty now; saved logs and statistics are kept.\n");
    EXPECT_EQ(run({"count"}).out, "0\n");
    storeThree();
  }
  EXPECT_EQ(onTerminal({"clear", "--yes"}).out.find('?'), std::string::npos);
}

TEST_F(PostwellLog, AClearThatFailsSaysSo) {
  runSQL(kLog, "drop table mail_log_table;");
  expectRefused({"clear", "--yes"}, 1,
                "the live log could not be cleared; the system log tells why");
}

// ---- stats

class PostwellLogStats : public PostwellLog {
 protected:
  PostwellLogStats() {
    runSQL(kStatistic,
           "insert into log_statistic_second values(1399914000, 1, 2, 3, 4.5, 5.25), "
           "(1399996800, 10, 20, 30, 40, 50);"
           "insert into log_statistic_hour values(1399939200, 6, 3, 0, 2.0, 1.0), "
           "(1399852800, 2, 1, 1, 2.0, 1.0);"
           "insert into log_statistic_day values(1399680000, 7, 7, 7, 7.7, 7.7);");
  }

  static std::string at(const Arguments &more) {
    Arguments words{"stats", "--until", "2014-05-13T16:53:20Z"};
    words.insert(words.end(), more.begin(), more.end());
    const Outcome outcome = run(words);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
  }
};

TEST_F(PostwellLogStats, ADayHas24Hours) {
  const std::string csv = at({"--csv"});
  EXPECT_EQ(std::count(csv.begin(), csv.end(), '\n'), 25);
  const std::string head = "time,received,sent,bounced,received_kib,sent_kib\n";
  EXPECT_EQ(csv.rfind(head + "2014-05-12T17:00:00Z,1,2,3,4,5\n2014-05-12T18:00:00Z,0,0,0,"
                             "0,0\n",
                      0),
            0u)
      << csv;
  EXPECT_NE(csv.find("\n2014-05-13T16:00:00Z,10,20,30,40,50\n"), std::string::npos);
  EXPECT_EQ(at({"--csv", "--period", "day"}), csv);
}

TEST_F(PostwellLogStats, EachPeriodHasItsIntervals) {
  const auto lines = [](const std::string &text) {
    return std::count(text.begin(), text.end(), '\n') - 1;
  };
  EXPECT_EQ(lines(at({"--csv", "--period", "week"})), 7);
  EXPECT_EQ(lines(at({"--csv", "--period", "month"})), 30);
  const std::string halfYear = at({"--csv", "--period", "half-year"});
  EXPECT_EQ(lines(halfYear), 6);
  EXPECT_NE(halfYear.find("\n2014-05-10T00:00:00Z,7,7,7,7,7\n"), std::string::npos);
}

TEST_F(PostwellLogStats, Json) {
  const std::string json = at({"--json", "--period", "week"});
  EXPECT_EQ(
      json.rfind("[\n  {\"time\":\"2014-05-07T00:00:00Z\",\"received\":0,\"sent\":0,"
                 "\"bounced\":0,\"received_kib\":0,\"sent_kib\":0},\n",
                 0),
      0u)
      << json;
  EXPECT_NE(json.find("{\"time\":\"2014-05-13T00:00:00Z\",\"received\":6,\"sent\":3,"
                      "\"bounced\":0,\"received_kib\":2,\"sent_kib\":1}\n]\n"),
            std::string::npos);
}

TEST_F(PostwellLogStats, TheTableHasBarsWhenTheyAreWanted) {
  const std::string plain = at({"--period", "week"});
  EXPECT_EQ(plain.find('#'), std::string::npos);
  const std::string table = at({"--period", "week", "--bars"});
  EXPECT_EQ(table.substr(0, table.find('\n')),
            "from                       received      sent   bounced   received KiB      "
            " sent KiB  # received = sent ! bounced");
  EXPECT_NE(
      table.find("\n2014-05-12 02:00:00 +0200         2         1         1         "
                 "     2              1  #######===!!!\n"),
      std::string::npos)
      << table;
  EXPECT_NE(table.find("              2              1  " + std::string(20, '#') +
                       std::string(10, '=') + '\n'),
            std::string::npos)
      << table;
}

TEST_F(PostwellLogStats, ATerminalGetsBarsAndNothingElseDoes) {
  const Arguments words{"stats", "--until", "2014-05-13T16:53:20Z", "--period", "week"};
  const Outcome outcome = onTerminal(words);
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out, at({"--period", "week", "--bars"}));
  for (const char *form : {"--json", "--csv"}) {
    Arguments formed = words;
    formed.emplace_back(form);
    EXPECT_EQ(onTerminal(formed).out, at({"--period", "week", form}));
  }
}

TEST_F(PostwellLogStats, SumsBeyondAnIntDoNoHarm) {
  runSQL(kStatistic, "update log_statistic_hour set outbound_quantity = 4294967295;");
  EXPECT_NE(at({"--period", "week", "--bars"}).find("  ##########!!!!!\n"),
            std::string::npos);
  EXPECT_NE(at({"--period", "week", "--csv"}).find(",6,-1,0,2,1\n"), std::string::npos);
}

TEST_F(PostwellLogStats, StatisticsThatCannotBeReadFail) {
  runSQL(kStatistic, "drop table log_statistic_second;");
  expectRefused({"stats"}, 1, "cannot read the statistics; the system log tells why.");
  database::spoilSchema(kStatistic);
  const Outcome outcome = run({"stats", "--json"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "postwell: " + kStatistic +
                             " was damaged and has been\nmade anew; what it held is "
                             "lost.\n");
  expectRefused({"stats", "--json", "--csv"}, 2, "--json excludes --csv");
}

}  // namespace
