// What protects the mail server: spam filter, DNS blocklists and virus scanner, switched
// and applied in one place.

#ifndef POSTWELL_SECURITY_H_
#define POSTWELL_SECURITY_H_

#include "postwell.h"

class DNSBL;
class Spam;

// The process's one façade. Its spam filter and blocklists are those that
// Spam::getInstance() and DNSBL::getInstance() give, which are changed with it.
class POSTWELL_API Security {
 public:
  // The one instance, made and loaded on first use; null when its settings, the spam
  // filter or the blocklists cannot be loaded, and the next call tries again.
  static Security *getInstance() noexcept;

  // How often stored spam is cleaned up; the unit is its reader's business.
  int getSpamCleanInterval() const noexcept;
  bool isEnableAntiVirus() const noexcept;
  bool isEnableSpamassassin() const noexcept;
  bool isEnableDNSBL() const noexcept;

  // Setters change memory only.
  void setSpamCleanInterval(int interval) noexcept;
  void setEnableAntiVirus(bool enabled) noexcept;
  void setEnableSpamassassin(bool enabled) noexcept;
  void setEnableDNSBL(bool enabled) noexcept;

  // Applies the spam filter's settings, writes its own, applies the blocklists', and
  // makes the mail scanner's configuration; no service is started or stopped. The first
  // step that fails is logged and ends this, what was done before it stays done. Returns
  // 0 in every case: to know, look into the system log or read the settings again.
  int applySettings() noexcept;

  // Makes the mail scanner's configuration from the settings file. 0, or a negative
  // value.
  static int GenerateConfig() noexcept;
  // Each runs its service with "start", "stop" or "restart" and waits. 0, or a negative
  // value.
  static int AntiVirusService(const char *action) noexcept;
  static int MailScannerService(const char *action) noexcept;

 private:
  Security() noexcept;
  ~Security() = default;
  Security(const Security &) = delete;
  Security &operator=(const Security &) = delete;

  int loadSettings() noexcept;

  int _spamCleanInterval;
  bool _enableAntiVirus;
  Spam *_pSpam;    // borrowed
  DNSBL *_pDNSBL;  // borrowed

  static Security *_pSecurity;
};

#endif  // POSTWELL_SECURITY_H_
