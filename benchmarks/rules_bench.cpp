// Rules: storing them against bare SQLite calls of the same texts; importing them against
// storing them; and making what the daemons read of 100,000, the whole program, against
// postmap alone on the same text.

#include <access.h>
#include <bcc.h>
#include <benchmark/benchmark.h>
#include <spam.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "kestcore.h"
#include "ratio.h"

namespace {

constexpr int kMany = 100'000;
const std::string kPackage = "/var/packages/Postwell/";
const std::string kDatabase = kPackage + "etc/postwell.db";
const std::string kImport = kPackage + "etc/import";
const std::string kConfig = kPackage + "target/etc/postmap";
const std::string kPostfix = kPackage + "target/etc/postfix/";
const std::string kSpamLists = kPackage + "target/etc/spam/blackwhite.cf";

std::string nameOf(int i) { return "user" + std::to_string(i) + "@host.example"; }

template <class... Arguments>
std::string formatted(const char *format, Arguments... arguments) {
  char text[256];
  snprintf(text, sizeof text, format, arguments...);
  return text;
}

// ---- what each class does with rules: the list, the call, and its texts

struct OfAccess {
  using Rules = std::list<AccessInfo>;
  static void add(Rules *rules, int i) {
    rules->emplace_back(TYPE_SENDER, NAME_ADDRESS, nameOf(i), ACCESS_REJECT);
  }
  static std::string text(int i) {
    return formatted(
        "INSERT OR REPLACE INTO access_table (name_type, name,type,access) VALUES "
        "('1','%s','0','2');",
        nameOf(i).c_str());
  }
  static bool store(const Rules &rules) {
    return Access::getInstance()->setAccess(rules) == 0;
  }
  static bool publish() { return true; }
};

// Accounts: of addresses an import takes only those of known names.
struct OfBcc {
  using Rules = std::list<BccInfo>;
  static std::string account(int i) { return "user" + std::to_string(i); }
  static void add(Rules *rules, int i) {
    rules->emplace_back(BCC_SENDER, account(i), "boss");
  }
  static std::string text(int i) {
    return formatted(
        "INSERT OR REPLACE INTO bcc_table(name,type,bcc_to) VALUES ('%s','0','boss');",
        account(i).c_str());
  }
  static bool store(const Rules &rules) { return BCC::getInstance()->setBCC(rules) == 0; }
  // the class runs the map's maker, which does nothing here
  static bool publish() { return BCC::GenerateBccMap() == 0; }
};

struct OfSpam {
  using Rules = std::list<BlackWhite>;
  static void add(Rules *rules, int i) {
    rules->push_back({nameOf(i), TYPE_BLACK, TYPE_SENDER, NAME_ADDRESS});
  }
  static std::string text(int i) {
    return formatted(
        "insert or replace into blackwhite_table (name_type, name, type, blackwhite) "
        "values ('1', '%s', '0', '1');",
        nameOf(i).c_str());
  }
  static bool store(const Rules &rules) {
    return Spam::getInstance()->addBlackWhiteList(rules) == 0;
  }
  static bool publish() { return true; }
};

template <class Owner>
typename Owner::Rules rulesOf(int count) {
  typename Owner::Rules rules;
  for (int i = 0; i < count; ++i) Owner::add(&rules, i);
  return rules;
}

// ---- storing; the rules are there already and are replaced

template <class Owner, int Count>
void store(benchmark::State &state) {
  const auto rules = rulesOf<Owner>(Count);
  for (auto _ : state)
    if (!Owner::store(rules)) return state.SkipWithError("storing failed");
}

bool runAll(sqlite3 *db, const std::vector<std::string> &texts) {
  const auto run = [db](const char *text) {
    return sqlite3_exec(db, text, nullptr, nullptr, nullptr) == SQLITE_OK;
  };
  if (!run("BEGIN TRANSACTION;")) return false;
  for (const std::string &text : texts)
    if (!run(text.c_str())) return false;
  return run("COMMIT TRANSACTION;");
}

template <class Owner, int Count>
void bare(benchmark::State &state) {
  std::vector<std::string> texts;
  for (int i = 0; i < Count; ++i) texts.push_back(Owner::text(i));
  sqlite3 *db = nullptr;
  if (sqlite3_open(kDatabase.c_str(), &db) != SQLITE_OK)
    state.SkipWithError("cannot open");
  for (auto _ : state)
    if (!runAll(db, texts) || !Owner::publish()) {
      state.SkipWithError("sqlite3_exec failed");
      break;
    }
  sqlite3_close(db);
}

// ---- importing

void importAccess(benchmark::State &state) {
  for (auto _ : state)
    if (Access::getInstance()->importAccess(TYPE_SENDER, kImport + ".access") != 0)
      return state.SkipWithError("importAccess failed");
}

void importSpam(benchmark::State &state) {
  for (auto _ : state)
    if (Spam::getInstance()->importBlackWhite(TYPE_BLACK, kImport + ".spam") != 0)
      return state.SkipWithError("importBlackWhite failed");
}

void importBcc(benchmark::State &state) {
  for (auto _ : state)
    if (BCC::getInstance()->importBCC(BCC_SENDER, kImport + ".bcc") != 0)
      return state.SkipWithError("importBCC failed");
}

// ---- making what the daemons read

bool run(const char *program) {
  return KLIBCExec(program, nullptr, nullptr, nullptr, nullptr) == 0;
}

void makeAccessMap(benchmark::State &state) {
  for (auto _ : state)
    if (!run(ACCESS_MAP_PROGRAM)) return state.SkipWithError("kest_access_map failed");
}

void makeBccMap(benchmark::State &state) {
  for (auto _ : state)
    if (!run(BCC_MAP_PROGRAM)) return state.SkipWithError("kest_bcc_map failed");
}

void makeSpamLists(benchmark::State &state) {
  for (auto _ : state) {
    unlink(kSpamLists.c_str());  // lists that are as they were are not made again
    if (!run(SPAM_LISTS_PROGRAM))
      return state.SkipWithError("kest_spam_blackwhite failed");
  }
}

void postmap(benchmark::State &state, const std::string &text) {
  const std::string map = "lmdb:" + text;
  for (auto _ : state)
    if (KLIBCExec("/usr/sbin/postmap", "-c", kConfig.c_str(), map.c_str(), nullptr) != 0)
      return state.SkipWithError("postmap failed");
}

void postmapAccess(benchmark::State &state) { postmap(state, kPostfix + "same_access"); }
void postmapBcc(benchmark::State &state) { postmap(state, kPostfix + "same_bcc"); }
void postmapSpam(benchmark::State &state) { postmap(state, kPostfix + "same_spam"); }

// ---- preparing

bool writeText(const std::string &path, const std::string &text) {
  std::ofstream file(path);
  file << text;
  file.close();
  return file.good();
}

// A program of the package that does nothing.
bool putAside(const std::string &program) {
  return symlink("/bin/true", (kPackage + "target/" + program).c_str()) == 0;
}

bool writeImports() {
  std::map<std::string, std::string> files;
  for (int i = 0; i < kMany; ++i) {
    files["access"] += nameOf(i) + " REJECT\n";
    files["spam"] += "From: " + nameOf(i) + " yes\n";
    files["bcc"] += OfBcc::account(i) + " boss\n";
  }
  for (const auto &[name, text] : files)
    if (!writeText(kImport + "." + name, text)) return false;
  return true;
}

// The text that the program has made, with the key in front.
bool keepText(const std::string &made, const std::string &kept) {
  std::ifstream from(made);
  std::string text;
  for (std::string line; std::getline(from, line);) {
    const size_t blank = line.find(' ');
    const bool isSpam = line.compare(0, 9, "blocklist") == 0;
    text += (isSpam ? line.substr(blank + 1) + ' ' + line.substr(0, blank) : line) + '\n';
  }
  return !text.empty() && writeText(kPostfix + kept, text);
}

bool prepare() {
  for (const char *folder : {"etc", "target/bin", "target/scripts", "target/etc/postmap",
                             "target/etc/postfix", "target/etc/spam"})
    std::filesystem::create_directories(kPackage + folder);
  return writeText(kConfig + "/main.cf", "compatibility_level = 3.6\n") &&
         writeText(kPackage + "etc/postwell.conf", "smtp_hostname=\"mail.example\"\n") &&
         putAside("bin/kest_bcc_map") && putAside("scripts/SpamDaemon.sh") &&
         OfAccess::store(rulesOf<OfAccess>(kMany)) &&
         OfBcc::store(rulesOf<OfBcc>(kMany)) && OfSpam::store(rulesOf<OfSpam>(kMany)) &&
         writeImports() && run(ACCESS_MAP_PROGRAM) && run(BCC_MAP_PROGRAM) &&
         run(SPAM_LISTS_PROGRAM) && keepText(kPostfix + "access_sender", "same_access") &&
         keepText(kPostfix + "bcc_sender", "same_bcc") &&
         keepText(kSpamLists, "same_spam");
}

}  // namespace

int main(int argc, char **argv) {
  if (!prepare()) {
    fprintf(stderr, "%s: cannot make the package's files (run it under hermetic-run)\n",
            argv[0]);
    return 1;
  }
  return runRatios(
      argc, argv,
      {{"access: store 1,000", store<OfAccess, 1'000>, bare<OfAccess, 1'000>, 1.1},
       {"access: store 100,000", store<OfAccess, kMany>, bare<OfAccess, kMany>, 1.1},
       {"bcc: store 1,000", store<OfBcc, 1'000>, bare<OfBcc, 1'000>, 1.1},
       {"bcc: store 100,000", store<OfBcc, kMany>, bare<OfBcc, kMany>, 1.1},
       {"spam: store 1,000", store<OfSpam, 1'000>, bare<OfSpam, 1'000>, 1.1},
       {"spam: store 100,000", store<OfSpam, kMany>, bare<OfSpam, kMany>, 1.1},
       {"access: import 100,000", importAccess, store<OfAccess, kMany>, 1.1},
       {"bcc: import 100,000", importBcc, store<OfBcc, kMany>, 1.1},
       {"spam: import 100,000", importSpam, store<OfSpam, kMany>, 1.1},
       {"kest_access_map, 100,000", makeAccessMap, postmapAccess, 2.5},
       {"kest_bcc_map, 100,000", makeBccMap, postmapBcc, 2.5},
       {"kest_spam_blackwhite, 100,000", makeSpamLists, postmapSpam, 2.5}});
}
