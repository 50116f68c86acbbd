// Access: rules that permit, reject or discard mail by its sender, recipient or client.
//
// kest_access_map turns the table into what Postfix looks up; callers run it after
// their changes. Odd, and kept: an empty search key lists every type; the count of a
// search within one type looks for the letter q, whatever the key; an import asks who
// the local names are and takes any name all the same.

#include "access.h"

#include <strings.h>

#include <cstdio>
#include <cstring>
#include <new>

#include "internal/log.h"
#include "internal/paths.h"
#include "internal/rule_table.h"
#include "internal/text_file.h"
#include "kestcore.h"
#include "smtp.h"

using internal::RuleSQL;
using internal::Statement;
using internal::textOf;

namespace {

using Rules = std::list<AccessInfo>;

constexpr int kPage = 1024;
constexpr int kNoType = -1;

int typeOf(const std::string &word) {
  if (word == "sender") return TYPE_SENDER;
  if (word == "recipient") return TYPE_RECIPIENT;
  if (word == "client") return TYPE_CLIENT;
  return kNoType;
}

}  // namespace

// ---- AccessInfo

AccessInfo::AccessInfo(Type ruleType, NameType kind, const std::string &ruleName,
                       AccessStatus action)
    : name(ruleName), status(action), type(ruleType), nameType(kind) {}
AccessInfo::AccessInfo(const AccessInfo &other) = default;

// ---- the one instance

Access *Access::_access = nullptr;

Access::Access() noexcept = default;
Access::~Access() = default;

Access *Access::getInstance() noexcept {
  if (_access != nullptr) return _access;
  _access = new (std::nothrow) Access;
  if (_access != nullptr && _access->dbInit() == 0) return _access;
  LOG_ERROR("db init fail");
  delete _access;
  _access = nullptr;
  return nullptr;
}

int Access::dbInit() noexcept {
  _accessDB = internal::makeRulesDB();
  if (_accessDB == nullptr) {
    LOG_ERROR("db init fail");
    return -1;
  }
  if (_accessDB->connect() != 0) {
    LOG_ERROR("db connect fail");
    return -1;
  }
  return 0;
}

int Access::HandleDBError(DBHandler &db, int code) noexcept {
  return internal::rebuildIfCorrupt(db, code, HERE);
}

// ---- actions and the map

AccessStatus Access::StrToStatus(const char *text) noexcept {
  char word[64];
  snprintf(word, sizeof word, "%s", text);  // the rest does not count
  if (KLIBCStrTrimSpace(word, 0) < 0) {
    LOG_ERROR("trim fail");
    return ACCESS_UNKNOW;
  }
  if (strcasecmp(word, "reject") == 0) return ACCESS_REJECT;
  if (strcasecmp(word, "ok") == 0 || strcasecmp(word, "permit") == 0)
    return ACCESS_PERMIT;
  if (strcasecmp(word, "discard") == 0) return ACCESS_DISCARD;
  return ACCESS_UNKNOW;
}

const char *Access::StatusToStr(AccessStatus status) noexcept {
  switch (status) {
    case ACCESS_PERMIT:
      return "OK";
    case ACCESS_REJECT:
      return "REJECT";
    case ACCESS_DISCARD:
      return "DISCARD";
    default:
      return "UNKNOWN";
  }
}

int Access::GenerateAccessMap() noexcept {
  return KLIBCExec(paths::kAccessMap, nullptr, nullptr, nullptr, nullptr);
}

// ---- changes

int Access::setAccess(const Rules &rules) noexcept try {
  SQLCmd statements;
  for (const AccessInfo &rule : rules)
    statements += RuleSQL(
                      "INSERT OR REPLACE INTO access_table (name_type, name,type,access) "
                      "VALUES ('%d','%q','%d','%d');",
                      static_cast<int>(rule.nameType), rule.name.c_str(),
                      static_cast<int>(rule.type), static_cast<int>(rule.status))
                      .c_str();
  if (internal::changeRules(*_accessDB, statements) != 0) {
    LOG_ERROR("fail to insert info into access table");
    return -1;
  }
  return 0;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

int Access::deleteAccess(const Rules &rules) noexcept try {
  SQLCmd statements;
  for (const AccessInfo &rule : rules)
    statements +=
        RuleSQL(
            "DELETE FROM access_table WHERE name_type='%d' AND name='%q' AND type='%d';",
            static_cast<int>(rule.nameType), rule.name.c_str(),
            static_cast<int>(rule.type))
            .c_str();
  if (internal::changeRules(*_accessDB, statements) != 0) {
    LOG_ERROR("fail to delete info into access table");
    return -1;
  }
  return 0;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

int Access::addAccess(Type type, NameType nameType, const std::string &name,
                      AccessStatus status) noexcept try {
  return setAccess({AccessInfo(type, nameType, name, status)});
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

// ---- reading

int Access::queryAccessData(Rules &out, const char *sql) noexcept try {
  const internal::Reading reading =
      internal::readRules(*_accessDB, sql, HERE, [&out](const Statement &row) {
        out.emplace_back(static_cast<Type>(row.integer(2)),
                         static_cast<NameType>(row.integer(0)), textOf(row, 1),
                         static_cast<AccessStatus>(row.integer(3)));
      });
  if (reading.refused) HandleDBError(*_accessDB, reading.code);  // the read has failed
  return reading.code;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return SQLITE_NOMEM;
}

std::string Access::getQueryCmd(const Filter &filter) {
  const char *const key = filter.key.c_str();
  const int type = typeOf(filter.type);
  if (filter.key.empty())
    return RuleSQL("SELECT * FROM access_table LIMIT '%d' OFFSET '%d'", filter.limit,
                   filter.start)
        .c_str();
  if (filter.type == "all")
    return RuleSQL(
               "SELECT * FROM access_table WHERE name LIKE '%%%q%%' LIMIT '%d' OFFSET "
               "'%d'",
               key, filter.limit, filter.start)
        .c_str();
  if (type == kNoType) return "";
  return RuleSQL(
             "SELECT * FROM access_table WHERE type='%d' AND name LIKE '%%%q%%' LIMIT "
             "'%d' OFFSET '%d'",
             type, key, filter.limit, filter.start)
      .c_str();
}

std::string Access::getCountCmd(const Filter &filter) {
  const int type = typeOf(filter.type);
  if (filter.key.empty()) return "SELECT COUNT(*) FROM access_table;";
  if (filter.type == "all")
    return RuleSQL("SELECT COUNT(*) FROM access_table WHERE name LIKE '%%%q%%'",
                   filter.key.c_str())
        .c_str();
  if (type == kNoType) return "";
  // callers know this count: the pattern is the letter q, never the key
  return RuleSQL(
             "SELECT COUNT(*) FROM access_table WHERE type='%d' AND name LIKE '%%q%%'",
             type)
      .c_str();
}

int Access::getTotalAccessNum(const Filter &filter) noexcept try {
  return internal::countRules(*_accessDB, getCountCmd(filter).c_str(), HERE);
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return 0;
}

Rules Access::getAllAccessList(const Filter &filter) noexcept try {
  Rules rules;
  if (queryAccessData(rules, getQueryCmd(filter).c_str()) != 0)
    LOG_ERROR("load Access data fail");
  return rules;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return {};
}

Rules Access::LoadAccessList(Type type, int offset, int limit, const char *orderBy,
                             const char *direction) noexcept {
  Rules rules;
  const RuleSQL sql(
      "SELECT * FROM access_table WHERE type='%d' ORDER BY %q %q LIMIT '%d' OFFSET '%d'",
      static_cast<int>(type), orderBy, direction, limit, offset);
  if (queryAccessData(rules, sql.c_str()) != 0) LOG_ERROR("load Access data fail");
  return rules;
}

Rules Access::getAccessList(Type type, int offset, int limit) noexcept {
  return LoadAccessList(type, offset, limit, "name", "desc");
}

// ---- files

int Access::exportAccess(Type type, const std::string &path) noexcept {
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
  internal::eachOfPages(
      kPage, internal::PageEnd::kShort,
      [this, type](int offset) { return getAccessList(type, offset, kPage); },
      [&file, &smtp](const AccessInfo &rule) {
        const bool isAccount = rule.nameType == NAME_ACCOUNT;
        file.print("%s%s%s %s\n", rule.name.c_str(), isAccount ? "@" : "",
                   isAccount ? smtp.getHostName().c_str() : "", StatusToStr(rule.status));
      });
  if (!file.finish()) {
    LOG_ERROR("write file %s fail", path.c_str());
    return -1;
  }
  return 0;
}

int Access::importAccess(Type type, const std::string &path) noexcept try {
  GetValidMap();  // callers expect the settings, aliases and users to be looked at
  Rules rules;
  const int read = internal::eachRule(path, HERE, [&rules, type](char *name, char *rest) {
    const AccessStatus status = StrToStatus(rest);
    if (status == ACCESS_UNKNOW) return;
    const bool isAddress = strchr(name, '@') != nullptr;
    rules.emplace_back(type, isAddress ? NAME_ADDRESS : NAME_DOMAIN, name, status);
  });
  if (read < 0) return -1;
  if (setAccess(rules) < 0) {
    LOG_ERROR("import list fail, type: %d", static_cast<int>(type));
    return -1;
  }
  return 0;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}
