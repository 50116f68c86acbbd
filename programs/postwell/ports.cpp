// Postfix's ports are settings, Dovecot's are fixed; whichever daemon started second
// would fail.

#include "ports.h"

#include <map>
#include <string>
#include <vector>

#include "command.h"

namespace {

struct Listener {
  std::string name;
  int port;
  std::string option;  // of "postwell smtp set", empty for a fixed port
};

std::vector<Listener> listeners(const SMTP &smtp, ReceiveProtocol &protocols) {
  std::vector<Listener> all;
  const auto add = [&all](bool enabled, const Listener &listener) {
    if (enabled) all.push_back(listener);
  };
  add(protocols.getProtocol(POP3), {"POP3", 110, ""});
  add(protocols.getProtocol(IMAP), {"IMAP", 143, ""});
  add(protocols.getProtocol(IMAPS), {"IMAP over TLS", 993, ""});
  add(protocols.getProtocol(POP3S), {"POP3 over TLS", 995, ""});
  add(smtp.isEnabled(), {"SMTP", smtp.getSMTPPort(), "--port"});
  add(smtp.isEnabled() && smtp.isEnabledSMTPS(),
      {"SMTPS", smtp.getSMTPsPort(), "--smtps-port"});
  return all;
}

}  // namespace

SMTP readSmtp() {
  SMTP smtp;
  if (smtp.loadSMTPSetting() != 0) throw settingsUnreadable();
  return smtp;
}

ReceiveProtocol readProtocols() {
  ReceiveProtocol protocols;
  if (protocols.load() != 0) throw settingsUnreadable();
  return protocols;
}

void refuseSharedPort(const SMTP &smtp, ReceiveProtocol &protocols) {
  std::map<int, std::string> taken;
  for (const Listener &listener : listeners(smtp, protocols)) {
    const auto [other, isFree] = taken.emplace(listener.port, listener.name);
    if (!isFree)
      throw Failure(kWrongUsage, other->second + " and " + listener.name +
                                     " cannot share port " +
                                     std::to_string(listener.port) +
                                     "; choose another with \"postwell smtp set " +
                                     listener.option + "\"");
  }
}
