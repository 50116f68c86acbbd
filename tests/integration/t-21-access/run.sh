#!/bin/bash
# Access rules, obeyed by the real Postfix: rejected mail gets 554, discarded mail 250 and
# is not delivered, permitted mail passes in spite of a blocklist; removing the rule
# undoes it at the next message.
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
addUsers alice bob
addLan
startMail

# accepted OPTION...: the message reaches alice. rejected OPTION...: it gets 554.
accepted() {
  word=$(token)
  expect sendFromLan --to "alice@$DOMAIN" --h-Subject "$word" "$@"
  waitFor inMailbox alice "$word"
}
rejected() {
  refute sendFromLan --to "alice@$DOMAIN" "$@"
  expect contains "$out" "554 5.7.1"
}

# rule SIDE OPTION NAME SEND-OPTION...: the rule rejects this mail, and no longer when it
# is removed.
rule() {
  local side=$1 option=$2 name=$3
  shift 3
  accepted "$@"
  run postwell access add "$side" reject "$option" "$name"
  expect equal "$out" "1 rule stored; Postfix follows."
  rejected "$@"
  expect postwell access remove "$side" "$option" "$name"
  accepted "$@"
}

step "a rejected sender: address, domain, subdomain, account"
rule sender --address bad@elsewhere.example --from BAD@elsewhere.example
rule sender --address bad@elsewhere.example --from bad+x@elsewhere.example
rule sender --domain elsewhere.example --from any@elsewhere.example
rule sender --domain elsewhere.example --from any@deep.sub.elsewhere.example
rule sender --account bob --from "bob@$DOMAIN"
expect postwell access add sender reject --account bob
accepted --from bob@elsewhere.example  # another bob
expect postwell access remove sender --account bob

step "a rejected recipient: address, domain, account in every local domain"
expect postwell domain add second.example
for to in "alice@$DOMAIN" alice@second.example; do
  rule recipient --address "$to" --to "$to"
  rule recipient --domain "${to#*@}" --to "$to"
  rule recipient --account alice --to "$to"
done
step "a domain that becomes local later has the account's rule"
expect postwell access add recipient reject --account alice
expect postwell domain add third.example
rejected --to alice@third.example
expect postwell access remove recipient --account alice

step "no other way to write an account's address leads past its rule"
expect postwell access add recipient reject --account alice
expect postwell access add sender reject --account bob
for host in "$DOMAIN" "$DOMAIN." Mail.Example localhost "[$LAN]" '[127.0.0.1]' '[IPv6:::1]' \
  '[IPv6:0:0:0:0:0:0:0:1]'; do
  for name in alice ALICE alice+x '"alice"' '"al\ice"' '@relay.example:alice'; do
    rejected --to "$name@$host"
  done
  rejected --to bob --from "bob@$host"
  rejected --to bob --from "\"bob\"@$host"
done
rejected --to alice
rejected --to bob --from bob
expect postwell access remove recipient --account alice
expect postwell access remove sender --account bob

step "a rejected client: its address, its network"
rule client --address "$LAN" --from a@elsewhere.example
rule client --domain "${LAN%.*}" --from a@elsewhere.example

step "discarded: 250, and no delivery"
expect postwell access add sender discard --domain elsewhere.example
word=$(token)
expect sendFromLan --to "alice@$DOMAIN" --h-Subject "$word"
waitFor mailLogged "discard: RCPT from .*triggers DISCARD action"
discarded=$word
expect postwell access remove sender --domain elsewhere.example
accepted  # what came before it would be there by now
refute inMailbox alice "$discarded"
postqueue -c "$POSTFIX" -p >"$WORLD/queue"
expect grep -q 'queue is empty' "$WORLD/queue"

step "permitted: passes in spite of a blocklist"
# one that lists everybody, where the blocklists stand: at the end
echo "smtpd_recipient_restrictions = $(configured smtpd_recipient_restrictions)," \
  "check_client_access static:{REJECT listed}" >>"$ADDITIONS/postfix-main.cf"
expect "$SCRIPTS/DaemonConfSet.sh" smtp
rejected --from good@elsewhere.example
expect postwell access add sender permit --address good@elsewhere.example
accepted --from good@elsewhere.example
rejected --from other@elsewhere.example

step "a permitted sender relays nowhere"
refute sendFromLan --from good@elsewhere.example --to x@outside.example
expect contains "$out" "Relay access denied"
