// The domains for which the mail server accepts mail.

#ifndef POSTWELL_DOMAIN_H_
#define POSTWELL_DOMAIN_H_

#include <list>
#include <string>

#include "postwell.h"

class POSTWELL_API Domain {
 public:
  // The list becomes that of the settings file; a missing key gives an empty one.
  // Returns 0, or -1 with the list as it was.
  int load() noexcept;

  // Drops names equal to the one before them, writes the list, regenerates Postfix's
  // configuration and restarts Postfix, also while SMTP is off. Returns 0, or -1 at
  // the first step that fails; what was written before it stays written.
  int save() noexcept;

  // A copy; empty without memory.
  std::list<std::string> getDomain() const noexcept;

  // Editing changes memory only and checks no name; names compare byte for byte.
  // Memory running out leaves the list as it was.
  void setDomain(const std::list<std::string> &names) noexcept;
  void addDomain(const std::string &name) noexcept;
  void addDomain(const std::list<std::string> &names) noexcept;
  // Every element equal to a name goes.
  void delDomain(const std::string &name) noexcept;
  void delDomain(const std::list<std::string> &names) noexcept;

 private:
  std::list<std::string> domainList;
};

#endif  // POSTWELL_DOMAIN_H_
