#!/bin/bash
# Who may send mail to the outside: who has authenticated, this machine, and with
# the exemption the clients of its own networks, never the rest of the world.
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
addUsers alice
addLan
# Addresses that belong to none of this machine's networks, yet can be used here.
expect ip route add local 203.0.113.0/24 dev lo
startMail

outward() { sendFromLan --to friend@outside.example "$@"; }
fromAbroad() { send --server "$LAN" --local-interface 203.0.113.9 --to friend@outside.example "$@"; }
alice=(--auth-user alice --auth-password pw-alice)

step "denied without authentication, inbound mail is not"
refute outward
expect contains "$out" "Relay access denied"
word=$(token)
expect sendFromLan --to "alice@$DOMAIN" --body "$word"
waitFor inMailbox alice "$word"

step "allowed with, also by the address as login name"
expect outward "${alice[@]}"
expect outward --auth-user "alice@$DOMAIN" --auth-password pw-alice
expect fromAbroad "${alice[@]}"

step "a wrong password is refused"
refute outward --auth PLAIN --auth-user alice --auth-password wrong
expect contains "$out" "535 5.7.8"

step "authentication switched off"
expect postwell smtp set --auth no >/dev/null
refute outward "${alice[@]}"
expect equal "$status" 28
refute grep -q AUTH <<<"$out"
expect postwell smtp set --auth yes >/dev/null

step "the exemption: the own networks, not the world"
expect postwell smtp set --lan-exempt yes >/dev/null
expect outward
refute fromAbroad
expect contains "$out" "Relay access denied"

step "an interface that spans the world exempts nobody"
ip addr add 198.51.100.1/0 dev lo
expect "$SCRIPTS/DaemonConfSet.sh" smtp
refute grep -qE '/[0-7]( |$)' <<<"$(configured mynetworks)"
expect "$SCRIPTS/PostfixDaemon.sh" restart
refute fromAbroad
ip addr del 198.51.100.1/0 dev lo

step "off again"
expect postwell smtp set --lan-exempt no >/dev/null
refute outward
