// The DNS blocklists that Postfix asks about a client before it accepts mail.

#ifndef POSTWELL_SPAM_FILTER_H_
#define POSTWELL_SPAM_FILTER_H_

#include <list>
#include <string>

#include "postwell.h"

// What a blocklist server is asked about: a client's IP address, or a domain name.
enum DNSBType : int { RBL = 0, RHSBL = 1 };

// A blocklist server.
struct DNSBinfo {
  std::string strServerName;  // the zone that is asked, "zone.example"
  DNSBType type;

  // The same name, byte for byte, and type.
  bool operator==(const DNSBinfo &other) const noexcept {
    return type == other.type && strServerName == other.strServerName;
  }
};

// The process's one object for the blocklists: whether they are asked, a setting, and
// the servers, which have a file of their own,
// "/var/packages/Postwell/etc/spamlist.conf".
class POSTWELL_API DNSBL {
 public:
  // The one instance, made and loaded on first use; null when it cannot be loaded, and
  // the next call tries again.
  static DNSBL *getInstance() noexcept;

  bool isDNSBLEnabled() const noexcept;
  // A copy, in the order of the file and of additions; empty without memory.
  std::list<DNSBinfo> getDNSBList() const noexcept;

  // Editing changes memory only and checks no name; a name is one line of text. Memory
  // running out leaves the list as it was.
  void setEnableDNSBL(bool enabled) noexcept;
  void setDNSBList(const std::list<DNSBinfo> &servers) noexcept;
  void addDNSBList(const std::list<DNSBinfo> &servers) noexcept;
  // Every element equal to one of these goes.
  void delDNSBList(const std::list<DNSBinfo> &servers) noexcept;

  // Reads the switch, which keeps its value when its key is absent, and adds the file's
  // servers to the list. 0, or -1 with what was read before the failure kept.
  int loadSettings() noexcept;

  // Writes the switch, then the servers, RBL before RHSBL, of neighbours of one name and
  // type the first; then, while SMTP is enabled, makes Postfix's configuration. 0, or -1
  // at the first step that fails; what was written before it stays written.
  int applySettings() noexcept;

 private:
  DNSBL() noexcept;
  ~DNSBL();
  DNSBL(const DNSBL &) = delete;
  DNSBL &operator=(const DNSBL &) = delete;

  int loadDNSBList() noexcept;
  int saveDNSBList() const noexcept;

  bool _enableDNSBL;
  std::list<DNSBinfo> _dnsbList;

  static DNSBL *_dnsbl;
};

#endif  // POSTWELL_SPAM_FILTER_H_
