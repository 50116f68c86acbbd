// Mail aliases and their members.

#ifndef POSTWELL_ALIAS_H_
#define POSTWELL_ALIAS_H_

#include <list>
#include <memory>
#include <string>

#include "postwell.h"

class DBHandler;
struct SQLCmd;

// USER: a local user; GROUP: a group of users; ALIAS: another alias; EXTADDR: an
// address elsewhere. Stored as these numbers.
enum MemberType : int { USER = 0, GROUP = 1, ALIAS = 2, EXTADDR = 3 };

struct POSTWELL_API MemberInfo {
  std::string strName;
  MemberType type;

  MemberInfo() noexcept;
  MemberInfo(const MemberInfo &other);  // may throw std::bad_alloc
  MemberInfo &operator=(const MemberInfo &other) = default;
  bool operator==(const MemberInfo &other) const noexcept;
};

// The aliases in "alias.db", one row for each member of each. Construct, check
// getError(), load(), read and change, save(). An alias exists as long as it has a
// member.
class POSTWELL_API Alias {
 public:
  // Learns the account type from the SMTP settings; a missing alias.db is made, by the
  // first load(), with the alias "root" for that account type's administrator.
  Alias() noexcept;
  ~Alias();
  Alias(const Alias &) = delete;
  Alias &operator=(const Alias &) = delete;

  // 0 when usable. -1 when the object could not be set up: nothing but the destructor
  // may then be called. -1 also after a change that failed.
  int getError() const noexcept;

  // Opens the file and appends the names of all aliases to the object's list (a second
  // load appends them again). 0 or -1; a damaged file is made anew and loads as empty.
  int load() noexcept;

  // Closes the file and has the mail server's alias map rebuilt. 0 or -1.
  int save() noexcept;

  // The names that load() read; empty without memory.
  std::list<std::string> getAliasNameList() const noexcept;

  // The members of one alias, replacing what `members` held. 0 or -1.
  int loadMember(const std::string &alias, std::list<MemberInfo> &members) noexcept;

  // Appends the distinct members of one type. 0 or -1.
  int enumMemberByType(std::list<std::string> &members, MemberType type) noexcept;

  // The changes, each one transaction on the opened file. 0, also when the file was
  // damaged and has been made anew without the change; -1 otherwise, with the
  // statements before the failed one still to be committed by save(). A statement
  // longer than 1024 bytes fails.
  // Adding checks nothing: a member added twice is stored twice.
  int addMember(const std::string &alias, const std::list<MemberInfo> &members) noexcept;
  int delMember(const std::string &alias, const std::list<MemberInfo> &members) noexcept;
  // Removes these members from every alias.
  int delMemberByType(const std::list<std::string> &names, MemberType type) noexcept;
  // Removes the aliases, as members of others too.
  int delAlias(const std::list<std::string> &names) noexcept;
  // Renames an alias, as a member of others too; an alias of the new name is merged.
  int changeAliasName(const std::string &oldName, const std::string &newName) noexcept;

 private:
  template <typename Take>
  int readRows(char *sql, Take take);
  int runChange(const SQLCmd &statements) noexcept;
  int HandleError() noexcept;
  int HandleDBError(int code) noexcept;

  int m_Err;
  std::unique_ptr<DBHandler> m_AliasDB;
  std::list<std::string> aliasList;
};

#endif  // POSTWELL_ALIAS_H_
