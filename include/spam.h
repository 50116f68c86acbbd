// The spam filter (SpamAssassin): its settings and rule files, and the black and white
// lists.

#ifndef POSTWELL_SPAM_H_
#define POSTWELL_SPAM_H_

#include <list>
#include <string>

#include "postwell.h"

class DBHandler;

// Which list an entry is in. Stored as these numbers; TYPE_KNOWN stands for no choice.
enum BlackWhiteType : int { TYPE_KNOWN = -1, TYPE_BLACK = 1, TYPE_WHITE = 2 };

// Whose mail always counts as spam, or never; there is one entry for each name of one
// kind and side, so that it is in one list only.
struct BlackWhite {
  std::string name;
  BlackWhiteType blackWhite;
  Type type;  // sender or recipient
  NameType nameType;
};

// A page of the lists, and what to search for in them.
struct BlackWhiteFilter {
  int start;              // how many entries to skip
  int limit;              // how many to give at most
  int type;               // a Type; -1 for any
  int blackWhite;         // a BlackWhiteType; -1 for any
  std::string select;     // "*"
  std::string searchKey;  // a whole name, quotes doubled; empty: any
};

// A file of rules for the filter.
struct SpamRule {
  std::string ruleName;  // the file's name
  bool isEnable;
};

// The process's one spam filter. Its settings are those of the settings file when it was
// made; its lists are in "postwell.db". A change of the lists does not reach the filter
// before GenerateBlackWhite(), one of the rule files not before GenerateConfig().
class POSTWELL_API Spam {
 public:
  // The one instance, made on first use; null when the settings cannot be read or the
  // file of the lists not be opened, and the next call tries again.
  static Spam *getInstance() noexcept;

  bool isEnableSpamassassin() const noexcept;
  // From which score a message counts as spam.
  float getRequiredScore() const noexcept;
  bool isEnableRewrite() const noexcept;
  // What the subject of spam begins with.
  const std::string &getRewriteSubject() const noexcept;
  int getReportMachanism() const noexcept;
  bool isUseAutoLearn() const noexcept;
  bool isUseAutoWhiteList() const noexcept;
  // From which score mail is learnt as spam, and below which as none.
  float getSpamLearnThreshold() const noexcept;
  float getNonSpamLearnThreshold() const noexcept;

  // Setters change memory only and check no range. Memory running out leaves the subject
  // as it was.
  void setEnableSpamassassin(bool enabled) noexcept;
  void setRequiredScore(float score) noexcept;
  void setEnableRewrite(bool enabled) noexcept;
  void setRewriteSubject(const std::string &subject) noexcept;
  void setReportMachanism(int kind) noexcept;
  void setUseAutoLearn(bool enabled) noexcept;
  void setSpamLearnThreshold(float score) noexcept;
  void setNonSpamLearnThreshold(float score) noexcept;
  void setUseAutoWhiteList(bool enabled) noexcept;

  // Writes the settings, scores with two decimals, and makes SpamAssassin's
  // configuration; the filter is not restarted. 0, or -1 at the first step that fails;
  // what was written before it stays written.
  int applySettings() noexcept;

  // Makes SpamAssassin's configuration from the settings file. 0, or a negative value.
  static int GenerateConfig() noexcept;
  // Runs the filter's service script with "start", "stop" or "restart" and waits. 0, or a
  // negative value.
  static int Service(const char *action) noexcept;

  // Rule files are imported by putting them into "/var/packages/Postwell/etc/rules/". A
  // name is that of a file in this folder; who takes one from elsewhere checks it.

  // The imported file's path; empty when there is none.
  static std::string GetImportRulePath(const std::string &name) noexcept;
  // All rule files, imported or enabled, by name in byte order; SpamAssassin's own files
  // are left out. Empty when one of the two folders cannot be read.
  std::list<SpamRule> getSpamRules() noexcept;
  // The result shows in getSpamRules(). Enabling copies the imported file to the filter,
  // anew when it is there; without an imported file the rule is disabled. Deleting
  // removes the imported file, too.
  void enableRule(const std::string &name) noexcept;
  void disableRule(const std::string &name) noexcept;
  void deleteRule(const std::string &name) noexcept;

  // Makes the filter follow the lists. 0, or a negative value.
  static int GenerateBlackWhite() noexcept;

  // The changes, each one transaction that is made whole or not at all. 0 or -1. An
  // entry whose statement is longer than 1024 bytes fails. Adding moves an entry that
  // is in the other list.
  int addBlackWhite(const BlackWhite &entry) noexcept;
  int addBlackWhiteList(const std::list<BlackWhite> &entries) noexcept;
  // Deleting ignores which list; an entry that is not there is no failure.
  int deleteBlackWhite(const BlackWhite &entry) noexcept;
  int deleteBlackWhiteList(const std::list<BlackWhite> &entries) noexcept;

  // The entries that the filter finds, in no certain order; what could be read, empty
  // on failure.
  std::list<BlackWhite> getBlackWhiteList(const BlackWhiteFilter &filter) noexcept;
  // How many those are without start and limit; -1 on failure.
  int countQueryData(const BlackWhiteFilter &filter) noexcept;

  // Adds the lines "From: name yes" and "To: name yes" of a text file to one list; other
  // lines are skipped. A name with an "@" is an address, any other a domain. 0 or -1.
  int importBlackWhite(BlackWhiteType list, const std::string &path) noexcept;
  // Writes one list so; an account becomes the address on this host. 0 or -1.
  int exportBlackWhite(BlackWhiteType list, const std::string &path) noexcept;

 private:
  Spam() noexcept;
  ~Spam();
  Spam(const Spam &) = delete;
  Spam &operator=(const Spam &) = delete;

  int LoadConfig() noexcept;
  int dbInit() noexcept;
  static std::string composeQueryCmd(const BlackWhiteFilter &filter);
  int queryBlackWhite(std::list<BlackWhite> &out,
                      const BlackWhiteFilter &filter) noexcept;

  DBHandler *_blackWhiteDB;  // lives as long as the process
  bool _enableSpamassassin;
  bool _enableRewrite;
  std::string _rewriteSubject;
  float _requiredScore;
  int _reportMachanism;
  bool _useAutoLearn;
  float _learnThresholdSpam;
  float _learnThresholdNonSpam;
  bool _useAutoWhiteList;

  static Spam *_spam;
};

#endif  // POSTWELL_SPAM_H_
