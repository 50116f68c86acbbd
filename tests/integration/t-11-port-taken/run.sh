#!/bin/bash
# A port that another program holds: the start fails and says so.
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"

# holdPort PORT: another program listens there until it is told to end.
holdPort() {
  python3 -c "
import socket, signal
server = socket.socket()
server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
server.bind(('0.0.0.0', $1))
server.listen()
signal.pause()" &
  holder=$!
  waitFor portOpen "$1"
}
release() { kill "$holder" && wait "$holder" 2>/dev/null; }

step "Postfix"
setKey smtp_enabled yes
holdPort 25
refused "bind 0.0.0.0 port 25: Address already in use" "$SCRIPTS/PostfixDaemon.sh" start
run "$SCRIPTS/PostfixDaemon.sh" status
expect equal "$status" 3
run postwell smtp set --hostname "$DOMAIN"
expect equal "$status" 1
release
expect "$SCRIPTS/PostfixDaemon.sh" start
expect portOpen 25

step "Dovecot"
holdPort 993
setKey imaps_enabled yes
refused "listen(*, 993) failed: Address already in use" "$SCRIPTS/DovecotDaemon.sh" start
release
expect "$SCRIPTS/DovecotDaemon.sh" start
expect equal "$(openPorts)" "25 993"
