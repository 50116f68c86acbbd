#!/bin/bash
# The black and white lists, obeyed by the real SpamAssassin behind Postfix: a blacklisted
# sender's mail is marked as spam, a whitelisted one's is not; removing the rule undoes it
# at the next message.
#
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
addUsers alice bob
addLan
startSpamFilter
startMail

# change LIST VERB TYPE OPTION...: it is done, and says that it is.
change() {
  run postwell "$@"
  expect equal "$status" 0
  expect contains "$out" "the spam filter follows."
}

# A rule that is enough for spam, and not enough to outweigh a list.
cat >"$T/etc/spamassassin/bargain.cf" <<'EOC'
body BARGAIN /bargain of the century/
score BARGAIN 50
EOC
expect "$SCRIPTS/DaemonConfSet.sh" spam
bargain=(--body 'the bargain of the century')

# senders MARK OPTION...: how the mail of those is marked whom the rules below name.
senders() {
  local mark=$1 from
  shift
  for from in bad@one.example 'bad+x#1@two.example' any@three.example \
    any@deep.sub.three.example "bob@$DOMAIN"; do
    marked "$mark" --from "$from" "$@"
  done
}
rules=(--address Bad@one.example --address 'bad+x#1@two.example' --domain Three.example --account bob)

step "blacklisted senders: address, domain, subdomain, account in every local domain"
senders ham
change blacklist add sender "${rules[@]}"
senders spam
marked ham --from other@one.example
marked ham --from any@notthree.example
marked ham --from bob@elsewhere.example  # another bob
marked spam --from innocent@elsewhere.example --h-From bad@one.example

step "a name is in one list only: from the black one they go to the white one"
run postwell whitelist add sender "${rules[@]}"
expect contains "$err" 'The sender domain "three.example" was in the other list.'
expect equal "$(postwell blacklist list)" ""
step "whitelisted senders"
senders ham "${bargain[@]}"
marked spam --from other@one.example "${bargain[@]}"
change whitelist remove sender "${rules[@]}"
senders spam "${bargain[@]}"
senders ham

step "blacklisted and whitelisted recipients: address, account in every local domain"
for rule in "--address=alice@$DOMAIN" --account=alice; do
  change blacklist add recipient "$rule"
  marked spam
  change whitelist add recipient "$rule"
  marked ham "${bargain[@]}"
  change whitelist remove recipient "$rule"
  marked ham
  marked spam "${bargain[@]}"
done

step "an account's rule holds in a domain that becomes local later"
change blacklist add sender --account bob
marked ham --from bob@late.example
expect postwell domain add late.example >/dev/null
marked spam --from bob@late.example
