// Rules on hidden copies: of the mail from a sender, to a recipient, or of all mail.

#ifndef POSTWELL_BCC_H_
#define POSTWELL_BCC_H_

#include <list>
#include <memory>
#include <string>

#include "postwell.h"

class DBHandler;

// Whose mail is copied. Stored as these numbers; BCC_ALL is a setting and normally not
// stored as a rule.
enum BccType : int { BCC_SENDER = 0, BCC_RECIPIENT = 1, BCC_ALL = 2 };

// One rule; there is one for each name and type.
struct POSTWELL_API BccInfo {
  std::string name;
  std::string bccTo;
  BccType type;

  // Both may throw std::bad_alloc.
  BccInfo(BccType ruleType, const std::string &ruleName, const std::string &target);
  BccInfo(const BccInfo &other);
  BccInfo &operator=(const BccInfo &other) = default;
  ~BccInfo();
};

// The BCC rules in "postwell.db" and the setting for all mail. The mail server follows
// each change at once.
class POSTWELL_API BCC {
 public:
  // The process's one instance, made on first use; null when the file cannot be
  // opened, and the next call tries again.
  static BCC *getInstance() noexcept;

  // Makes the mail server follow the rules. 0, or a negative value.
  static int GenerateBccMap() noexcept;

  // Where a copy of all mail goes; empty for nowhere, and when it cannot be read.
  std::string getAlwaysBCC() const noexcept;
  // Writes the setting, regenerates Postfix's configuration and, while SMTP is on,
  // restarts Postfix. 0, or -1 at the first step that fails; what was written before
  // it stays written.
  int setAlwaysBCC(const std::string &target) noexcept;

  // The changes, each one transaction, then the map. 0 or -1: when the transaction
  // fails, the rules before the one that failed are changed and the map is not; when
  // the map fails, all rules are. A rule whose statement is longer than 1024 bytes
  // fails.
  // Setting replaces the target of a rule that is there.
  int setBCC(const std::list<BccInfo> &rules) noexcept;
  // Deleting ignores the target; a rule that is not there is no failure. A rule of
  // type BCC_ALL clears the setting, whose failure is not told.
  int deleteBCC(const std::list<BccInfo> &rules) noexcept;
  // For BCC_ALL the same as setAlwaysBCC(bccTo).
  int addBCC(BccType type, const std::string &name, const std::string &bccTo) noexcept;

  // Lists hold what could be read; empty on failure. A file found damaged is made
  // anew, without the rules.
  // The rules of one type, by name, descending.
  std::list<BccInfo> getBCCList(BccType type, int offset, int limit) noexcept;
  // Those whose name or target the filter finds, in no certain order.
  std::list<BccInfo> getAllBCCList(const Filter &filter) noexcept;
  // How many those are without start and limit; with a key and "all" those whose target
  // holds the letter q count as well, with a key and one type it is always 0. 0 on
  // failure.
  int getTotalBccNum(const Filter &filter) noexcept;

  // Appends the rules that a "SELECT *" on bcc_table gives. 0 or SQLite's code.
  int queryBccData(std::list<BccInfo> &out, const char *sql) noexcept;

  // Stores the lines "name target" of a text file as rules of one type. A line with an
  // "@" in a word that is no local user or alias is skipped. 0 or -1.
  int importBCC(BccType type, const std::string &path) noexcept;
  // Writes the rules of one type so. 0 or -1.
  int exportBCC(BccType type, const std::string &path) noexcept;

 private:
  BCC() noexcept;
  ~BCC();
  BCC(const BCC &) = delete;
  BCC &operator=(const BCC &) = delete;

  int init() noexcept;
  static int publish() noexcept;
  int HandleDBError(DBHandler &db, int code) noexcept;
  static std::string getQueryCmd(const Filter &filter);
  static std::string getCountCmd(const Filter &filter);
  std::list<BccInfo> LoadBCCList(BccType type, int offset, int limit, const char *orderBy,
                                 const char *direction) noexcept;

  static BCC *_bcc;
  std::unique_ptr<DBHandler> _bccDB;
};

#endif  // POSTWELL_BCC_H_
