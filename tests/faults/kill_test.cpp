// Whoever writes is killed at random moments. What he had acknowledged is there
// afterwards, nothing is there in part, and the next one can write. The seed is fixed.

#include <unistd.h>

#include <cstdio>
#include <random>

#include "access.h"
#include "alias.h"
#include "bcc.h"
#include "faults/killed.h"
#include "personal.h"
#include "smtp.h"
#include "spam.h"
#include "spam_filter.h"
#include "support/database.h"
#include "support/files.h"
#include "support/fresh_process.h"
#include "support/library_test.h"

namespace {

const std::string kEtc = "/var/packages/Postwell/etc/";
const std::string kRules = kEtc + "postwell.db";
const std::string kAliases = kEtc + "alias.db";
const std::string kBlocklists = kEtc + "spamlist.conf";
const std::string kHome = "/var/services/homes/alice";
const std::string kByHand = "# by hand\nkept=\"yes\"\n";

std::string numbered(const std::string &text, int n) { return text + std::to_string(n); }

// One who brings a file from each state to the next, state 0 being the first.
struct Writer {
  const char *name;
  // In place: readers may see the beginning of the next state, after a kill for good.
  bool inPlace;
  std::function<bool(int n)> store;
  std::function<std::string(int n)> state;
  std::function<std::string()> found;
};

std::string joined(const std::vector<std::string> &rows) {
  std::string text;
  for (const std::string &row : rows) text += row + '\n';
  return text;
}

// Of a table in which each state adds rows whose `column` is "n" and the number.
std::string rowsUpTo(int n, int each) {
  std::string text;
  for (int i = 0; i <= n; i++)
    for (int row = 0; row < each; row++) text += numbered("n", i) + '\n';
  return text;
}

std::string column(const std::string &file, const std::string &table,
                   const std::string &column) {
  return joined(database::rowsOf(file, "select substr(" + column + ", 1, instr(" +
                                           column + " || '.', '.') - 1) from " + table +
                                           " where " + column +
                                           " like 'n%' order by rowid;"));
}

Writer settings() {
  return {"settings", false,
          [](int n) {
            SMTP smtp;
            if (smtp.load() != 0) return false;
            smtp.setHostName(numbered("n", n));
            return smtp.save() == 0;
          },
          [](int n) { return kByHand + numbered("n", n); },
          [] {
            SMTP smtp;
            const std::string text = readFile(PackageTree::kSettings);
            if (smtp.load() != 0 || text.find("smtp_port=\"25\"\n") == std::string::npos)
              return "damaged: " + text;
            return text.substr(0, kByHand.size()) + smtp.getHostName();
          }};
}

Writer aliases() {
  constexpr int kMembers = 3;
  return {"aliases", false,
          [](int n) {
            MemberInfo member;
            member.strName = "m";
            member.type = EXTADDR;
            const std::list<MemberInfo> members(kMembers, member);
            Alias alias;
            return alias.load() == 0 && alias.addMember(numbered("n", n), members) == 0;
          },
          [](int n) { return rowsUpTo(n, kMembers); },
          [] { return column(kAliases, "alias_info_table", "alias"); }};
}

Writer accessRules() {
  return {"access rules", false,
          [](int n) {
            return Access::getInstance()->setAccess(
                       {{TYPE_SENDER, NAME_DOMAIN, numbered("n", n), ACCESS_REJECT}}) ==
                   0;
          },
          [](int n) { return rowsUpTo(n, 1); },
          [] { return column(kRules, "access_table", "name"); }};
}

Writer bccRules() {
  return {"BCC rules", false,
          [](int n) {
            return BCC::getInstance()->setBCC({{BCC_SENDER, numbered("n", n), "x"}}) == 0;
          },
          [](int n) { return rowsUpTo(n, 1); },
          [] { return column(kRules, "bcc_table", "name"); }};
}

Writer spamLists() {
  constexpr int kEntries = 3;
  return {"spam lists", false,
          [](int n) {
            std::list<BlackWhite> entries;
            for (int i = 0; i < kEntries; i++)
              entries.push_back({numbered(numbered("n", n) + '.', i), TYPE_BLACK,
                                 TYPE_SENDER, NAME_DOMAIN});
            return Spam::getInstance()->addBlackWhiteList(entries) == 0;
          },
          [](int n) { return rowsUpTo(n, kEntries); },
          [] { return column(kRules, "blackwhite_table", "name"); }};
}

Writer blocklists() {
  return {
      "blocklists", true,
      [](int n) {
        DNSBL *const dnsbl = DNSBL::getInstance();
        dnsbl->setDNSBList({{numbered("n", n), RBL}});
        return dnsbl->applySettings() == 0;
      },
      [](int n) { return "[RBL server]\n" + numbered("n", n) + "\n[RHSBL server]\n"; },
      [] { return readFile(kBlocklists); }};
}

Writer forwarding() {
  return {".forward", true,
          [](int n) {
            Personal personal("alice");
            personal.setForward(true);
            personal.setKeepCopy(true);
            personal.setForwardAddr(numbered("n", n) + "@elsewhere.example");
            return personal.save() == 0;
          },
          [](int n) { return "\\alice\n" + numbered("n", n) + "@elsewhere.example\n"; },
          [] {
            const std::string path = kHome + "/.forward";
            return fileExists(path) ? readFile(path) : "";
          }};
}

class KillTest : public LibraryTest, public testing::WithParamInterface<Writer (*)()> {
 protected:
  KillTest() {
    mkdir(kHome.c_str(), 0755);
    begin();
  }

  // State 0, as a process before has left it.
  void begin() {
    for (const std::string &file : {kRules, kAliases})
      for (const char *end : {"", "-journal"}) unlink((file + end).c_str());
    writeDefaults();
    writeFile(PackageTree::kSettings, kByHand + readFile(PackageTree::kSettings));
    writeFile(kBlocklists, "[RBL server]\n[RHSBL server]\n");
    inFreshProcess([&] { EXPECT_TRUE(writer.store(0)); });
    log.take();
  }

  // Why what is found is not what was acknowledged; empty when it is.
  std::string wrong(int acknowledged) const {
    const std::string found = writer.found(), next = writer.state(acknowledged + 1);
    const bool begun = writer.inPlace && next.rfind(found, 0) == 0;
    if (found == writer.state(acknowledged) || found == next || begun) return "";
    return "state " + std::to_string(acknowledged) + " was stored, and there is\n" +
           found;
  }

  // Writes on from state 0 until killed.
  int writeUntilKilled(const Acknowledge &acknowledge) const {
    for (int n = 1; writer.store(n); n++) acknowledge();
    return 1;
  }

  const Writer writer = GetParam()();
  std::mt19937 random{1};
};

TEST_P(KillTest, WhatWasAcknowledgedSurvivesAKillAtAnyMoment) {
  long acknowledged = 0, begun = 0, lost = 0;
  for (int i = 0; i < kills(); i++) {
    begin();
    const int stored = acknowledgedWhenKilled(
        [&](const Acknowledge &acknowledge) { return writeUntilKilled(acknowledge); },
        1 + static_cast<int>(random() % 12), static_cast<long>(random() % 3'000'000));
    const std::string loss = wrong(stored);
    EXPECT_EQ(loss, "") << i;
    lost += !loss.empty();
    acknowledged += stored;
    begun += writer.found() != writer.state(stored);
    inFreshProcess([&] { EXPECT_TRUE(writer.store(stored + 9)) << "the next one"; });
    EXPECT_NE(writer.found().find(numbered("n", stored + 9)), std::string::npos);
  }
  EXPECT_GE(acknowledged, kills());
  printf("| %s | %d | %ld | %ld | %ld |\n", writer.name, kills(), acknowledged, begun,
         lost);
}

TEST_P(KillTest, ALossWouldBeSeen) {
  const auto loseTheThird = [&](const Acknowledge &acknowledge) {
    for (int n = 1; n <= 2; n++) {
      if (!writer.store(n)) return 1;
      acknowledge();
    }
    acknowledge();
    return pause();
  };
  const int stored = acknowledgedWhenKilled(loseTheThird, 3, 0);
  EXPECT_EQ(stored, 3);
  EXPECT_NE(wrong(stored), "");
}

INSTANTIATE_TEST_SUITE_P(Writers, KillTest,
                         testing::Values(settings, aliases, accessRules, bccRules,
                                         spamLists, blocklists, forwarding));

}  // namespace
