// postwell smtp show|set: the SMTP service.

#include "smtp.h"

#include <iostream>

#include "command.h"
#include "nouns.h"
#include "ports.h"

namespace {

Values describe(const SMTP &smtp) {
  return {{"enabled", smtp.isEnabled()},
          {"account_type", smtp.getAccountType()},
          {"account_domain", smtp.getAccDomainName()},
          {"auth", smtp.isSMTPAuthEnabled()},
          {"lan_exempt", smtp.isSMTPIgnoreAuth()},
          {"hostname", smtp.getHostName()},
          {"port", smtp.getSMTPPort()},
          {"size_limit_mb", smtp.getMessageSizeLimit()},
          {"restrict_sender", smtp.isRestrictSender()},
          {"smtps", smtp.isEnabledSMTPS()},
          {"smtps_port", smtp.getSMTPsPort()}};
}

void confirm(const SMTP &smtp) {
  std::cout << "SMTP " << onOff(smtp.isEnabled());
  if (smtp.isEnabled()) {
    std::cout << ", port " << smtp.getSMTPPort();
    if (smtp.isEnabledSMTPS()) std::cout << ", SMTPS port " << smtp.getSMTPsPort();
  }
  std::cout << "; Postfix and Dovecot follow.\n";
}

void runSet(const SetCommand<SMTP> &set) {
  SMTP smtp = readSmtp();
  if (smtp.loadRelaySetting() != 0) throw relayPasswordLost();  // saved along
  set.apply(smtp);
  ReceiveProtocol protocols = readProtocols();
  refuseSharedPort(smtp, protocols);
  if (smtp.save() != 0) throw saveFailed(describe(readSmtp()) == describe(smtp));
  confirm(smtp);
}

}  // namespace

void addSmtp(CLI::App &app) {
  CLI::App &noun = addNoun(app, "smtp", "The SMTP service (Postfix)");
  addShow(noun, [] { return describe(readSmtp()); });

  SetCommand<SMTP> set(noun);
  const Rule port = wholeNumber(1, 65535);
  set.option<bool>("--enabled", "Whether SMTP runs", yesNo(), &SMTP::setSMTP);
  set.option<std::string>("--account-type", "Where accounts come from", accountType(),
                          &SMTP::setAccountType);
  set.option<std::string>("--account-domain", "The accounts' domain", hostName(),
                          &SMTP::setAccDomainName);
  set.option<bool>("--auth", "Offer authentication", yesNo(), &SMTP::setSMTPAuth);
  set.option<bool>("--lan-exempt", "The local network need not authenticate", yesNo(),
                   &SMTP::setSMTPIgnoreAuth);
  set.option<std::string>("--hostname", "The name that the server gives itself",
                          hostName(), &SMTP::setHostName);
  set.option<int>("--port", "The SMTP port", port, &SMTP::setSMTPPort);
  set.option<int>("--size-limit", "The largest message in MB, 0 for no limit",
                  wholeNumber(0, 2047), &SMTP::setMessageSizeLimit);
  set.option<bool>("--restrict-sender", "Users may send only under their own address",
                   yesNo(), &SMTP::setRestrictSender);
  set.option<bool>("--smtps", "Offer SMTP over TLS", yesNo(), &SMTP::setSMTPS);
  set.option<int>("--smtps-port", "The SMTPS port", port, &SMTP::setSMTPsPort);
  set.callback([set] { runSet(set); });
}
