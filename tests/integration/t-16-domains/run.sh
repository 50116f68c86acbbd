#!/bin/bash
# Mail to a domain of the list is accepted, to a removed one refused.
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
addUsers alice
addLan
startMail

accepted() { sendFromLan --to "alice@$1"; }

step "a domain that is not ours is refused"
refute accepted first.example
expect contains "$out" "554 5.7.1"

step "added, it is accepted and delivered"
expect postwell domain add first.example second.example
expect equal "$(postwell domain list)" $'first.example\nsecond.example'
word=$(token)
expect sendFromLan --to alice@first.example --h-Subject "$word"
waitFor inMailbox alice "$word"
expect accepted second.example

step "removed, it is refused again; the other stays"
expect postwell domain remove first.example
refute accepted first.example
expect accepted second.example

step "a list that Postfix could not carry is refused and changes nothing"
# shellcheck disable=SC2016 # the dollar is meant
setKey canonical_domain 'second.example, $mail_owner'
refused canonical_domain "$SCRIPTS/DaemonConfSet.sh" smtp
expect accepted second.example
