#!/bin/bash
# With all four protocols off Dovecot still delivers and authenticates for SMTP;
# with SMTP off as well it stays stopped.
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
addUsers alice
addLan
expect postwell smtp set --enabled yes --hostname "$DOMAIN" >/dev/null
expect equal "$(openPorts)" 25

step "delivery and authentication work"
word=$(token)
expect sendFromLan --to friend@outside.example --auth-user alice --auth-password pw-alice
expect sendFromLan --to "alice@$DOMAIN" --body "$word"
waitFor inMailbox alice "$word"
refute sendFromLan --to "alice@$DOMAIN" --auth PLAIN --auth-user alice --auth-password wrong

step "SMTP off too: Dovecot is stopped and a restart leaves it so"
expect "$SCRIPTS/DovecotDaemon.sh" status
expect postwell smtp set --enabled no >/dev/null
for action in "" restart start; do
  if [[ -n $action ]]; then expect "$SCRIPTS/DovecotDaemon.sh" "$action"; fi
  run "$SCRIPTS/DovecotDaemon.sh" status
  expect equal "$status" 3
  refute pgrep -x dovecot
done

step "a protocol brings it back"
expect postwell protocol set --pop3s yes >/dev/null
expect equal "$(openPorts)" 995
