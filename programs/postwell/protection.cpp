// The scripts say on standard error why they fail; what is left to tell is which one, and
// that the settings are stored all the same.

#include "protection.h"

#include <string>

#include "command.h"
#include "kestcore.h"
#include "ports.h"
#include "rule_list.h"

namespace {

constexpr char kBlocklists[] = "/var/packages/Postwell/etc/spamlist.conf";

void expectDone(int result, const std::string &command) {
  if (result < 0)
    throw saveFailed(true, "run \"/var/packages/Postwell/target/" + command + '"');
}

}  // namespace

Spam &spamFilter() {
  Spam *const spam = Spam::getInstance();
  if (spam != nullptr) return *spam;
  readSmtp();  // tells when it is the settings that cannot be read
  throw rulesUnavailable();
}

DNSBL &blocklists() {
  DNSBL *const lists = DNSBL::getInstance();
  if (lists != nullptr) return *lists;
  readSmtp();
  throw Failure(kFailed, std::string("cannot read ") + kBlocklists +
                             ".\nRun as root. If the file is missing, install the "
                             "package again.");
}

Security &security() {
  spamFilter();
  blocklists();
  Security *const all = Security::getInstance();
  if (all == nullptr) throw settingsUnreadable();
  return *all;
}

void configureSpamFilter() {
  expectDone(Spam::GenerateConfig(), "scripts/DaemonConfSet.sh spam");
}

void configurePostfix() {
  if (readSmtp().isEnabled())
    expectDone(SMTP::SetPostfixConfig(), "scripts/DaemonConfSet.sh smtp");
}

void configureScanners() {
  expectDone(Security::GenerateConfig(), "scripts/DaemonConfSet.sh mailscanner");
}

void runFilters() {
  expectDone(Spam::Service("start"), "scripts/SpamDaemon.sh start");
  expectDone(Security::AntiVirusService("start"), "bin/kest_anti-virus start");
  expectDone(Security::MailScannerService("start"), "scripts/MailScanner.sh start");
}
