// Alias: mail names that deliver to lists of members, kept in "alias.db".
//
// Works on a DBHandler of its own: load() opens it, save() closes it and has the mail
// server's alias map rebuilt by DaemonConfSet.sh. Odd, and kept: a change that meets a
// damaged file rebuilds the file and reports success although nothing is stored.

#include "alias.h"

#include <new>

#include "DBHandler.h"
#include "internal/log.h"
#include "internal/paths.h"
#include "internal/schemas.h"
#include "internal/statement.h"
#include "kestcore.h"
#include "smtp.h"

using internal::FixedSQL;
using internal::FreeSQL;
using internal::Statement;

namespace {

constexpr char kTable[] = "alias_info_table";
using ChangeSQL = FixedSQL<1024>;

std::string ldapSchema() {
  SMTP smtp;
  if (smtp.load() < 0) return "";
  return FixedSQL<4096>(schemas::kAliasLdap, smtp.getAccDomainName().c_str()).c_str();
}

std::string winSchema() {
  char shortName[256] = "";
  if (KLIBCFileGetKeyValue(paths::kSettings, "win_domain_short_name", shortName,
                           sizeof shortName, 0) < 0) {
    LOG_ERROR("get win short domain name fail");
    return "";
  }
  return FixedSQL<4096>(schemas::kAliasWin, shortName).c_str();
}

// Empty for an account type without aliases, or when its names cannot be learnt.
std::string GetDBSchemaByType(const std::string &accountType) {
  if (accountType == "local") return schemas::kAliasLocal;
  if (accountType == "ldap") return ldapSchema();
  if (accountType == "win") return winSchema();
  return "";
}

// Takes column 0, the only one of the name queries.
auto appendTo(std::list<std::string> &names) {
  return [&names](const Statement &row) {
    const char *name = row.text(0);
    if (name != nullptr) names.emplace_back(name);
    return name != nullptr;
  };
}

}  // namespace

// ---- MemberInfo

MemberInfo::MemberInfo() noexcept : type(USER) {}
MemberInfo::MemberInfo(const MemberInfo &other) = default;

bool MemberInfo::operator==(const MemberInfo &other) const noexcept {
  return strName == other.strName && type == other.type;
}

// ---- Alias

Alias::Alias() noexcept : m_Err(-1) {
  SMTP smtp;
  if (smtp.load() < 0) {
    LOG_ERROR("smtp setting load fail");
    return;
  }
  try {  // a constructor whose whole body were tried would throw on
    const std::string schema = GetDBSchemaByType(smtp.getAccountType());
    if (schema.empty()) {
      LOG_ERROR("get %s db schema fail", smtp.getAccountType().c_str());
      return;
    }
    m_AliasDB = std::make_unique<DBHandler>(paths::kAliasDB, schema);
    m_Err = 0;
  } catch (const std::bad_alloc &) {
    LOG_ERROR("Out of memory");
  }
}

Alias::~Alias() = default;

int Alias::getError() const noexcept { return m_Err; }

int Alias::load() noexcept try {
  if (m_AliasDB->connect() != 0) {
    LOG_ERROR("Fail to load");
    return -1;
  }
  return readRows(sqlite3_mprintf("SELECT DISTINCT alias FROM '%q';", kTable),
                  appendTo(aliasList));
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

int Alias::save() noexcept {
  if (m_AliasDB->disconnect() != 0) {
    LOG_ERROR("Fail to save");
    return -1;
  }
  if (KLIBCExec(paths::kDaemonConfSet, "alias", nullptr, nullptr, nullptr) < 0) {
    LOG_ERROR("Fail to exec SZ_SET_DAEMON_CONF");
    return -1;
  }
  return 0;
}

std::list<std::string> Alias::getAliasNameList() const noexcept try {
  return aliasList;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return {};
}

int Alias::loadMember(const std::string &alias, std::list<MemberInfo> &members) noexcept
    try {
  members.clear();
  return readRows(
      sqlite3_mprintf("SELECT * FROM '%q' WHERE alias='%q';", kTable, alias.c_str()),
      [&members](const Statement &row) {
        const char *name = row.text(1);
        if (name == nullptr) return false;
        MemberInfo member;
        member.strName = name;
        member.type = static_cast<MemberType>(row.integer(2));
        members.push_back(member);
        return true;
      });
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

int Alias::enumMemberByType(std::list<std::string> &members, MemberType type) noexcept
    try {
  return readRows(sqlite3_mprintf("SELECT DISTINCT member FROM '%q' WHERE type='%d';",
                                  kTable, static_cast<int>(type)),
                  appendTo(members));
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

// Hands each row of the query to `take`, which says whether the row's value is there.
// Owns `sql`, which is null when memory was short.
template <typename Take>
int Alias::readRows(char *sql, Take take) {
  const std::unique_ptr<char, FreeSQL> owned(sql);
  int code;
  {
    Statement statement(m_AliasDB->getDB(), sql);
    while (statement.next()) {
      if (!take(statement)) {
        LOG_ERROR("query fail");
        return -1;
      }
    }
    code = statement.code();
  }  // finalised: a damaged file is closed to be replaced
  if (code == SQLITE_DONE) return 0;
  return HandleDBError(code) != 0 ? -1 : 0;
}

// ---- changes

int Alias::addMember(const std::string &alias,
                     const std::list<MemberInfo> &members) noexcept try {
  SQLCmd statements;
  for (const MemberInfo &member : members)
    statements +=
        ChangeSQL("INSERT INTO '%q' (alias,member,type) VALUES ('%q','%q','%d');", kTable,
                  alias.c_str(), member.strName.c_str(), static_cast<int>(member.type))
            .c_str();
  return runChange(statements);
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

int Alias::delMember(const std::string &alias,
                     const std::list<MemberInfo> &members) noexcept try {
  SQLCmd statements;
  for (const MemberInfo &member : members)
    statements +=
        ChangeSQL("DELETE FROM '%q' WHERE (alias='%q' AND member='%q' AND type='%d');",
                  kTable, alias.c_str(), member.strName.c_str(),
                  static_cast<int>(member.type))
            .c_str();
  return runChange(statements);
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

int Alias::delMemberByType(const std::list<std::string> &names, MemberType type) noexcept
    try {
  SQLCmd statements;
  for (const std::string &name : names)
    statements += ChangeSQL("DELETE FROM '%q' WHERE member='%q' AND type='%d';", kTable,
                            name.c_str(), static_cast<int>(type))
                      .c_str();
  return runChange(statements);
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

int Alias::delAlias(const std::list<std::string> &names) noexcept try {
  SQLCmd statements;
  for (const std::string &name : names) {
    statements +=
        ChangeSQL("DELETE FROM '%q' WHERE alias='%q';", kTable, name.c_str()).c_str();
    statements += ChangeSQL("DELETE FROM '%q' WHERE member='%q' AND type= '%d';", kTable,
                            name.c_str(), static_cast<int>(ALIAS))
                      .c_str();
  }
  return runChange(statements);
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

int Alias::changeAliasName(const std::string &oldName,
                           const std::string &newName) noexcept try {
  SQLCmd statements;
  statements += ChangeSQL("UPDATE '%q' SET alias= '%q' WHERE alias= '%q';", kTable,
                          newName.c_str(), oldName.c_str())
                    .c_str();
  statements +=
      ChangeSQL("UPDATE '%q' SET member= '%q' WHERE member= '%q' AND type= '%d';", kTable,
                newName.c_str(), oldName.c_str(), static_cast<int>(ALIAS))
          .c_str();
  return runChange(statements);
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

int Alias::runChange(const SQLCmd &statements) noexcept {
  if (m_AliasDB->exeCmds(statements, true) == 0) return 0;
  m_Err = 1;
  return HandleError();
}

// ---- errors

int Alias::HandleError() noexcept {
  const bool repaired = m_Err == 1 && HandleDBError(m_AliasDB->getErrCode()) == 0;
  m_Err = repaired ? 0 : -1;
  return m_Err;
}

int Alias::HandleDBError(int code) noexcept {
  if (code != SQLITE_CORRUPT) return code;
  LOG_ERROR("alias db corrupt, need regen");
  return m_AliasDB->regenDB();
}
