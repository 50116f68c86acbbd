// Spam: the spam filter's settings, its rule files, and its black and white lists.
//
// DaemonConfSet.sh turns the settings into SpamAssassin's configuration, in whose folder
// a copy of each rule file lies that is enabled. SpamDaemon.sh runs the filter.
//
// kest_spam_blackwhite turns the lists into what SpamAssassin reads; callers run it after
// their changes. Odd, and kept: a search key goes into the query as it stands; a damaged
// file is not made anew, and a read that fails gives what came before in silence; the
// head of an export is a line that an import skips.

#include "spam.h"

#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <map>
#include <new>

#include "internal/folder.h"
#include "internal/log.h"
#include "internal/paths.h"
#include "internal/rule_table.h"
#include "internal/settings_table.h"
#include "internal/text.h"
#include "internal/text_file.h"
#include "kestcore.h"
#include "smtp.h"

using internal::RuleSQL;
using internal::Statement;

namespace {

using Entries = std::list<BlackWhite>;

constexpr int kPage = 512;
constexpr int kAny = -1;

}  // namespace

// ---- the one instance

Spam *Spam::_spam = nullptr;

Spam::Spam() noexcept
    : _blackWhiteDB(nullptr),
      _enableSpamassassin(false),
      _enableRewrite(false),
      _rewriteSubject("*****SPAM*****"),
      _requiredScore(5.0f),
      _reportMachanism(1),
      _useAutoLearn(false),
      _learnThresholdSpam(12.0f),
      _learnThresholdNonSpam(0.1f),
      _useAutoWhiteList(false) {}

Spam::~Spam() = default;

Spam *Spam::getInstance() noexcept {
  if (_spam != nullptr) return _spam;
  _spam = new (std::nothrow) Spam;
  if (_spam == nullptr) {
    LOG_ERROR("out of memory");
    return nullptr;
  }
  if (_spam->LoadConfig() == 0 && _spam->dbInit() == 0) return _spam;
  LOG_ERROR("load spam config fail");
  delete _spam;
  _spam = nullptr;
  return nullptr;
}

int Spam::LoadConfig() noexcept try {
  mkdir(paths::kImportedRules, 0644);  // there already, or missed by whoever imports
  internal::SettingsTable table;
  if (!table.isAllocated()) {
    LOG_ERROR("Out of memort");  // spelt as log readers know it
    return -1;
  }
  if (table.readFile() < 0) {
    LOG_ERROR("get config fail");
    return -1;
  }
  table.get("spam_enable", _enableSpamassassin);
  table.get("spam_required_score", _requiredScore);
  table.get("spam_enable_rewrite", _enableRewrite);
  table.get("spam_rewrite_subject", _rewriteSubject);
  table.get("spam_report_machanism", _reportMachanism);
  table.get("spam_auto_learn", _useAutoLearn);
  table.get("spam_learn_threshold_spam", _learnThresholdSpam);
  table.get("spam_learn_threshold_non_spam", _learnThresholdNonSpam);
  table.get("spam_auto_whitelist", _useAutoWhiteList);
  return 0;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memort");
  return -1;
}

int Spam::dbInit() noexcept {
  auto db = internal::makeRulesDB();
  if (db == nullptr) {
    LOG_ERROR("db init fail");
    return -1;
  }
  if (db->connect() != 0) {
    LOG_ERROR("db connect fail");
    return -1;
  }
  _blackWhiteDB = db.release();
  return 0;
}

// ---- settings

bool Spam::isEnableSpamassassin() const noexcept { return _enableSpamassassin; }
float Spam::getRequiredScore() const noexcept { return _requiredScore; }
bool Spam::isEnableRewrite() const noexcept { return _enableRewrite; }
const std::string &Spam::getRewriteSubject() const noexcept { return _rewriteSubject; }
int Spam::getReportMachanism() const noexcept { return _reportMachanism; }
bool Spam::isUseAutoLearn() const noexcept { return _useAutoLearn; }
bool Spam::isUseAutoWhiteList() const noexcept { return _useAutoWhiteList; }
float Spam::getSpamLearnThreshold() const noexcept { return _learnThresholdSpam; }
float Spam::getNonSpamLearnThreshold() const noexcept { return _learnThresholdNonSpam; }

void Spam::setEnableSpamassassin(bool enabled) noexcept { _enableSpamassassin = enabled; }
void Spam::setRequiredScore(float score) noexcept { _requiredScore = score; }
void Spam::setEnableRewrite(bool enabled) noexcept { _enableRewrite = enabled; }
void Spam::setRewriteSubject(const std::string &subject) noexcept {
  ASSIGN_TEXT(_rewriteSubject, subject);
}
void Spam::setReportMachanism(int kind) noexcept { _reportMachanism = kind; }
void Spam::setUseAutoLearn(bool enabled) noexcept { _useAutoLearn = enabled; }
void Spam::setSpamLearnThreshold(float score) noexcept { _learnThresholdSpam = score; }
void Spam::setNonSpamLearnThreshold(float score) noexcept {
  _learnThresholdNonSpam = score;
}
void Spam::setUseAutoWhiteList(bool enabled) noexcept { _useAutoWhiteList = enabled; }

int Spam::applySettings() noexcept {
  internal::SettingsTable table;
  if (!table.isAllocated()) {
    LOG_ERROR("Out of memort");  // spelt as log readers know it
    return -1;
  }
  table.set("spam_enable", _enableSpamassassin);
  table.set("spam_enable_rewrite", _enableRewrite);
  table.set("spam_rewrite_subject", _rewriteSubject);
  table.set("spam_required_score", _requiredScore);
  table.set("spam_report_machanism", _reportMachanism);
  table.set("spam_auto_learn", _useAutoLearn);
  table.set("spam_learn_threshold_spam", _learnThresholdSpam);
  table.set("spam_learn_threshold_non_spam", _learnThresholdNonSpam);
  table.set("spam_auto_whitelist", _useAutoWhiteList);
  if (table.writeFile() < 0) {
    LOG_ERROR("set confing fail");  // spelt as log readers know it
    return -1;
  }
  if (GenerateConfig() < 0) {
    LOG_ERROR("fail to generate spamassassin config");
    return -1;
  }
  return 0;
}

int Spam::GenerateConfig() noexcept {
  return KLIBCExec(paths::kDaemonConfSet, "spam", nullptr, nullptr, nullptr);
}

int Spam::Service(const char *action) noexcept {
  return KLIBCExec(paths::kSpamDaemon, action, nullptr, nullptr, nullptr);
}

// ---- rule files

namespace {

using RuleMap = std::map<std::string, bool>;

// Marks every name in the folder; false when it cannot be opened.
bool markRules(const char *path, bool enabled, RuleMap *rules) {
  internal::Folder folder(path);
  if (!folder.isOpen()) return false;
  while (const char *name = folder.next()) (*rules)[name] = enabled;
  return true;
}

// What is no rule file of the administrator: SpamAssassin's own files.
bool isOwnFile(const std::string &name) {
  static constexpr const char *kOwn[] = {".",        "..",       "init.pre", "local.cf",
                                         "v310.pre", "v312.pre", "v320.pre"};
  return std::find(std::begin(kOwn), std::end(kOwn), name) != std::end(kOwn);
}

std::string importedPath(const std::string &name) { return paths::kImportedRules + name; }
std::string activePath(const std::string &name) { return paths::kActiveRules + name; }

}  // namespace

std::string Spam::GetImportRulePath(const std::string &name) noexcept try {
  std::string path = importedPath(name);
  if (!KLIBCFileExist(path.c_str())) path.clear();
  return path;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return {};
}

std::list<SpamRule> Spam::getSpamRules() noexcept try {
  RuleMap rules;
  if (!markRules(paths::kImportedRules, false, &rules)) {
    LOG_ERROR("open dir fail");
    return {};
  }
  if (!markRules(paths::kActiveRules, true, &rules)) {
    LOG_ERROR("open spam dir fail");
    return {};
  }
  std::list<SpamRule> listed;
  for (const auto &[name, enabled] : rules)
    if (!isOwnFile(name)) listed.push_back({name, enabled});
  return listed;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return {};
}

void Spam::enableRule(const std::string &name) noexcept try {
  const std::string imported = importedPath(name), active = activePath(name);
  unlink(active.c_str());  // there may be none
  // of a failed copy nothing is told, but a part of a rule file must not stay in force
  if (KLIBCExec(paths::kCopy, imported.c_str(), active.c_str(), nullptr, nullptr) < 0)
    unlink(active.c_str());
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
}

void Spam::disableRule(const std::string &name) noexcept try {
  unlink(activePath(name).c_str());  // there may be none
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
}

void Spam::deleteRule(const std::string &name) noexcept try {
  const std::string imported = importedPath(name), active = activePath(name);
  unlink(imported.c_str());  // either may be missing
  unlink(active.c_str());
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
}

// ---- changes of the lists

int Spam::GenerateBlackWhite() noexcept {
  return KLIBCExec(paths::kSpamBlackWhite, nullptr, nullptr, nullptr, nullptr);
}

int Spam::addBlackWhiteList(const Entries &entries) noexcept try {
  SQLCmd statements;
  for (const BlackWhite &entry : entries)
    statements += RuleSQL(
                      "insert or replace into blackwhite_table (name_type, name, type, "
                      "blackwhite) values ('%d', '%q', '%d', '%d');",
                      static_cast<int>(entry.nameType), entry.name.c_str(),
                      static_cast<int>(entry.type), static_cast<int>(entry.blackWhite))
                      .c_str();
  if (internal::changeRulesWhole(*_blackWhiteDB, statements) != 0) {
    LOG_ERROR("fail to insert info into blackwhite table");
    return -1;
  }
  return 0;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

int Spam::deleteBlackWhiteList(const Entries &entries) noexcept try {
  SQLCmd statements;
  for (const BlackWhite &entry : entries)
    statements += RuleSQL(
                      "delete from blackwhite_table where name_type='%d' AND name='%q' "
                      "AND type='%d';",
                      static_cast<int>(entry.nameType), entry.name.c_str(),
                      static_cast<int>(entry.type))
                      .c_str();
  if (internal::changeRulesWhole(*_blackWhiteDB, statements) != 0) {
    LOG_ERROR("fail to delete info into blackwhite table");  // log readers match this
    return -1;
  }
  return 0;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

int Spam::addBlackWhite(const BlackWhite &entry) noexcept try {
  return addBlackWhiteList({entry});
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

int Spam::deleteBlackWhite(const BlackWhite &entry) noexcept try {
  return deleteBlackWhiteList({entry});
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

// ---- reading the lists

std::string Spam::composeQueryCmd(const BlackWhiteFilter &filter) {
  std::string sql = "select " + filter.select + " from blackwhite_table ";
  const char *before = "where ";
  const auto addCondition = [&sql, &before](const std::string &condition) {
    sql += before + condition;
    before = " and ";
  };
  if (filter.type != kAny) addCondition("type=" + std::to_string(filter.type));
  if (filter.blackWhite != kAny)
    addCondition("blackwhite=" + std::to_string(filter.blackWhite));
  // callers double its quotes
  if (!filter.searchKey.empty())
    addCondition(RuleSQL("name='%s'", filter.searchKey.c_str()).c_str());
  if (filter.select != "count(*)")
    sql += " limit " + std::to_string(filter.limit) + " offset " +
           std::to_string(filter.start);
  return sql + ";";
}

int Spam::queryBlackWhite(Entries &out, const BlackWhiteFilter &filter) noexcept try {
  return internal::readRules(*_blackWhiteDB, composeQueryCmd(filter).c_str(), HERE,
                             [&out](const Statement &row) {
                               out.push_back({internal::textOf(row, 1),
                                              static_cast<BlackWhiteType>(row.integer(3)),
                                              static_cast<Type>(row.integer(2)),
                                              static_cast<NameType>(row.integer(0))});
                             })
      .code;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

Entries Spam::getBlackWhiteList(const BlackWhiteFilter &filter) noexcept {
  Entries entries;
  // SQLite's codes are not negative: of its failures nothing is said here
  if (queryBlackWhite(entries, filter) < 0) LOG_ERROR("query black white data fail");
  return entries;
}

int Spam::countQueryData(const BlackWhiteFilter &filter) noexcept try {
  BlackWhiteFilter counting = filter;
  counting.select = "count(*)";
  int count = -1;
  const internal::Reading reading =
      internal::readRules(*_blackWhiteDB, composeQueryCmd(counting).c_str(), HERE,
                          [&count](const Statement &row) { count = row.integer(0); });
  return reading.code == SQLITE_OK ? count : -1;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

// ---- files

int Spam::exportBlackWhite(BlackWhiteType list, const std::string &path) noexcept try {
  internal::TextFile file(path.c_str());
  if (!file.isOpen()) {
    LOG_ERROR("open file %s fail", path.c_str());
    return -1;
  }
  SMTP smtp;
  if (smtp.load() < 0) {
    LOG_ERROR("get domain name fail");
    return -1;
  }
  file.print("FromOrTo: default no\n");
  BlackWhiteFilter page = {0, kPage, kAny, list, "*", ""};
  internal::eachOfPages(
      kPage, internal::PageEnd::kEmpty,
      [this, &page](int offset) {
        page.start = offset;
        return getBlackWhiteList(page);
      },
      [&file, &smtp](const BlackWhite &entry) {
        const bool isAccount = entry.nameType == NAME_ACCOUNT;
        file.print("%s: %s%s%s yes\n", entry.type == TYPE_SENDER ? "From" : "To",
                   entry.name.c_str(), isAccount ? "@" : "",
                   isAccount ? smtp.getHostName().c_str() : "");
      });
  if (!file.finish()) {
    LOG_ERROR("write file %s fail", path.c_str());
    return -1;
  }
  return 0;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

namespace {

// Appends the entry of a line "From: name yes" or "To: name yes"; others are skipped.
void takeLine(char *line, BlackWhiteType list, Entries *entries) {
  if (KLIBCStrTrimSpace(line, 0) < 0) {
    LOG_ERROR("trim %s fail", line);
    return;
  }
  char *flag = nullptr;
  const char *const field = strtok_r(line, " ", &flag);
  if (field == nullptr) {
    internal::logLine(LOG_INFO, __FILE_NAME__, __LINE__, "parse fail, skip %s", line);
    return;
  }
  const char *const name = strtok_r(nullptr, " ", &flag);
  if (name == nullptr) return;
  const bool isSender = strcasecmp(field, "from:") == 0;
  if (!isSender && strcasecmp(field, "to:") != 0) {
    LOG_ERROR("skip: %s", field);
    return;
  }
  if (strcasecmp(flag, "yes") != 0) return;
  const bool isAddress = strchr(name, '@') != nullptr;
  entries->push_back({name, list, isSender ? TYPE_SENDER : TYPE_RECIPIENT,
                      isAddress ? NAME_ADDRESS : NAME_DOMAIN});
}

}  // namespace

int Spam::importBlackWhite(BlackWhiteType list, const std::string &path) noexcept try {
  Entries entries;
  const int read = internal::eachLine(
      path, HERE, [list, &entries](char *line) { takeLine(line, list, &entries); });
  if (read < 0) return -1;
  if (addBlackWhiteList(entries) < 0) {
    LOG_ERROR("import list fail");
    return -1;
  }
  return 0;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}
