#!/bin/bash
# Who has authenticated may send only under an address of his own login.
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
addUsers alice bob
addLan
startMail
setKey canonical_domain second.example

# as LOGIN SENDER: sends to alice, authenticated.
as() {
  sendFromLan --auth-user "$1" --auth-password "pw-$1" --from "$2" --to "alice@$DOMAIN"
}

step "without the restriction any sender goes"
expect as alice "bob@$DOMAIN"

step "with it only the own address, in each of our domains"
expect postwell smtp set --restrict-sender yes >/dev/null
expect as alice "alice@$DOMAIN"
expect as alice alice@second.example
refute as alice "bob@$DOMAIN"
expect contains "$out" "553 5.7.1"
refute as alice somebody@outside.example
expect as bob "bob@$DOMAIN"

step "inbound mail from elsewhere is not concerned"
expect sendFromLan --from somebody@outside.example --to "alice@$DOMAIN"

step "a missing login map is made again"
rm "$POSTFIX"/login_map*
expect "$SCRIPTS/DaemonConfSet.sh" smtp
expect "$SCRIPTS/PostfixDaemon.sh" restart
refute as alice "bob@$DOMAIN"
expect as alice "alice@$DOMAIN"

step "lifted"
expect postwell smtp set --restrict-sender no >/dev/null
expect as alice "bob@$DOMAIN"
