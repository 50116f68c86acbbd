// postwell protocol show|set: what Dovecot offers for reading mail.

#include <iostream>

#include "command.h"
#include "nouns.h"
#include "ports.h"

namespace {

struct Offer {
  Protocol protocol;
  const char *key;
  const char *name;
};

constexpr Offer kOffers[] = {{POP3, "pop3", "POP3"},
                             {POP3S, "pop3s", "POP3 over TLS"},
                             {IMAP, "imap", "IMAP"},
                             {IMAPS, "imaps", "IMAP over TLS"}};

Values describe(ReceiveProtocol protocols) {
  Values values;
  for (const Offer &offer : kOffers)
    values[offer.key] = protocols.getProtocol(offer.protocol);
  return values;
}

void confirm(ReceiveProtocol protocols) {
  const char *separator = "";
  for (const Offer &offer : kOffers) {
    std::cout << separator << offer.name << ' '
              << onOff(protocols.getProtocol(offer.protocol));
    separator = ", ";
  }
  std::cout << "; Dovecot follows.\n";
}

void runSet(const SetCommand<ReceiveProtocol> &set) {
  ReceiveProtocol protocols = readProtocols();
  set.apply(protocols);
  refuseSharedPort(readSmtp(), protocols);
  if (protocols.save() != 0)
    throw saveFailed(describe(readProtocols()) == describe(protocols));
  confirm(protocols);
}

}  // namespace

void addProtocol(CLI::App &app) {
  CLI::App &noun = addNoun(app, "protocol", "The protocols for reading mail (Dovecot)");
  addShow(noun, [] { return describe(readProtocols()); });

  SetCommand<ReceiveProtocol> set(noun);
  for (const Offer &offer : kOffers) {
    const auto setter = [protocol = offer.protocol](ReceiveProtocol &protocols,
                                                    bool enabled) {
      protocols.setProtocol(protocol, enabled);
    };
    set.option<bool>(std::string("--") + offer.key, std::string("Offer ") + offer.name,
                     yesNo(), setter);
  }
  set.callback([set] { runSet(set); });
}
