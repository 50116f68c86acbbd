// The settings of Postfix and Dovecot together, for their ports.

#ifndef POSTWELL_PROGRAMS_PORTS_H_
#define POSTWELL_PROGRAMS_PORTS_H_

#include "receive_protocol.h"
#include "smtp.h"

// The groups as they are stored; a failure ends the command. SMTP comes without the
// relay: nothing but the relay's own commands must depend on its password.
SMTP readSmtp();
ReceiveProtocol readProtocols();

// Ends the command when two services that are on would listen on one port.
void refuseSharedPort(const SMTP &smtp, ReceiveProtocol &protocols);

#endif  // POSTWELL_PROGRAMS_PORTS_H_
