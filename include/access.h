// Rules on whose mail is accepted, refused or silently dropped.

#ifndef POSTWELL_ACCESS_H_
#define POSTWELL_ACCESS_H_

#include <list>
#include <memory>
#include <string>

#include "postwell.h"

class DBHandler;

// What happens to the mail. Stored as these numbers.
enum AccessStatus : int {
  ACCESS_UNKNOW = 0,
  ACCESS_PERMIT = 1,
  ACCESS_REJECT = 2,
  ACCESS_DISCARD = 3
};

// One rule; there is one for each name of one kind and side.
struct POSTWELL_API AccessInfo {
  std::string name;
  AccessStatus status;
  Type type;
  NameType nameType;

  // Both may throw std::bad_alloc.
  AccessInfo(Type ruleType, NameType kind, const std::string &ruleName,
             AccessStatus action);
  AccessInfo(const AccessInfo &other);
  AccessInfo &operator=(const AccessInfo &other) = default;
};

// The access rules in "postwell.db". A change does not reach the mail server before
// GenerateAccessMap().
class POSTWELL_API Access {
 public:
  // The process's one instance, made on first use; null when the file cannot be
  // opened, and the next call tries again.
  static Access *getInstance() noexcept;

  // "reject", "ok", "permit" or "discard" in any letters, white space around it; any
  // other text is ACCESS_UNKNOW. Only the first 63 bytes count.
  static AccessStatus StrToStatus(const char *text) noexcept;
  // "OK", "REJECT", "DISCARD" or "UNKNOWN".
  static const char *StatusToStr(AccessStatus status) noexcept;

  // Makes the mail server follow the rules. 0, or a negative value.
  static int GenerateAccessMap() noexcept;

  // The changes, each one transaction. 0, or -1 with the rules before the one that
  // failed changed. A rule whose statement is longer than 1024 bytes fails.
  // Setting replaces the action of a rule that is there.
  int setAccess(const std::list<AccessInfo> &rules) noexcept;
  // Deleting ignores the action; a rule that is not there is no failure.
  int deleteAccess(const std::list<AccessInfo> &rules) noexcept;
  int addAccess(Type type, NameType nameType, const std::string &name,
                AccessStatus status) noexcept;

  // Lists hold what could be read; empty on failure. A file found damaged is made
  // anew, without the rules.
  // The rules of one side, by name, descending.
  std::list<AccessInfo> getAccessList(Type type, int offset, int limit) noexcept;
  // Those that the filter finds, in no certain order.
  std::list<AccessInfo> getAllAccessList(const Filter &filter) noexcept;
  // How many those are without start and limit; with a key and one type, how many rules
  // of that type have the letter q in their names. 0 on failure.
  int getTotalAccessNum(const Filter &filter) noexcept;

  // Appends the rules that a "SELECT *" on access_table gives. 0 or SQLite's code.
  int queryAccessData(std::list<AccessInfo> &out, const char *sql) noexcept;

  // Stores the lines "name action" of a text file as rules of one side; other lines
  // are skipped. A name with an "@" is an address, any other a domain. 0 or -1.
  int importAccess(Type type, const std::string &path) noexcept;
  // Writes the rules of one side so; an account becomes the address on this host.
  // 0 or -1.
  int exportAccess(Type type, const std::string &path) noexcept;

 private:
  Access() noexcept;
  ~Access();
  Access(const Access &) = delete;
  Access &operator=(const Access &) = delete;

  int dbInit() noexcept;
  int HandleDBError(DBHandler &db, int code) noexcept;
  static std::string getQueryCmd(const Filter &filter);
  static std::string getCountCmd(const Filter &filter);
  std::list<AccessInfo> LoadAccessList(Type type, int offset, int limit,
                                       const char *orderBy,
                                       const char *direction) noexcept;

  static Access *_access;
  std::unique_ptr<DBHandler> _accessDB;
};

#endif  // POSTWELL_ACCESS_H_
