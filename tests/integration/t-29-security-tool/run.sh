#!/bin/bash
# The command line tool switches the filters on and off, and the real daemons obey at once.
#
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
addUsers alice
addLan
# a list that does not answer shall not take the scenario's time
echo 'options timeout:1 attempts:1' >>/etc/resolv.conf
startNames
startMail
addSignatures
gtube=(--body 'XJS*C4JDBQADN1.NSBN3*2IDNEN*GTUBE-STANDARD-ANTI-UBE-TEST-EMAIL*C.34X')
bargain=(--body 'the bargain of the century')
rule=$WORLD/bargain.cf

# What the tool says is in $out and $err.
tool() {
  run postwell "$@"
  expect equal "$status" 0
}
fails() {
  run postwell "$@"
  expect equal "$status" 1
}

# tagged SEND-OPTION...: a message to alice arrives, and has the tag before its subject.
tagged() {
  word=$(token)
  expect sendFromLan --to "alice@$DOMAIN" --h-Subject "$word" "$@"
  waitFor inMailbox alice "$word"
  grep -qx "Subject: \[JUNK\] $word" "$(mailFile alice "$word")"
}

step "spam is tagged while the filter is on, and the score decides"
tool spam set --enabled yes --rewrite yes --subject '[JUNK]' --report headers
expect contains "$out" 'Spam filter on; SpamAssassin and Postfix follow.'
expect tagged "${gtube[@]}"
refute tagged
tool spam set --score 2000
refute tagged "${gtube[@]}"
tool spam set --score 5

step "a rule file is linted, and counts from its switching on to its switching off"
printf 'body /unclosed\nscore\n' >"$rule"
fails spam rule add "$rule"
expect contains "$err" 'the rule file was not taken'
expect contains "$err" 'SpamAssassin refuses the configuration: config: '
tool spam rules
expect equal "$out" ""
before=$(find "$T/etc" "$P/etc" | sort)
for name in .. . .x.cf local.cf x $'a\n.cf' -x.cf ../x.cf; do
  run "$SCRIPTS/SpamRuleCheck.sh" "$rule" "$name"
  expect equal "$status" 2
  expect equal "$err" 'usage: SpamRuleCheck.sh FILE NAME'
  expect equal "$(find "$T/etc" "$P/etc" | sort)" "$before"
done
printf 'body BARGAIN /bargain of the century/\nscore BARGAIN 10\n' >"$rule"
tool spam rule add "$rule"
refute tagged "${bargain[@]}"
tool spam rule enable bargain.cf
expect tagged "${bargain[@]}"
tool spam rule disable bargain.cf
refute tagged "${bargain[@]}"
tool spam rule delete bargain.cf
tool spam rules
expect equal "$out" ""

step "blocklists are tested by their entries, and refuse"
cat >"$ZONE" <<'EOC'
2.0.0.127.good.example 127.0.0.2
1.30.20.10.good.example 127.0.0.2
2.0.0.127.all.example 127.0.0.2
1.0.0.127.all.example 127.0.0.2
2.0.0.127.closed.example 127.255.255.254
1.0.0.127.closed.example 127.255.255.254
test.domains.example 127.0.0.2
mute.example silence
EOC
tool dnsbl add good.example all.example closed.example dead.example mute.example
tool dnsbl add --kind rhsbl domains.example
fails dnsbl test
expect equal "$out" "good.example works.
all.example lists everything: it would refuse all mail.
closed.example answers with other numbers than 127.0.0.2 to 127.0.0.11, which Postfix takes for an error.
dead.example lacks its test entry: it is dead, or no such list.
mute.example gives no answer.
domains.example works."
expect equal "$err" 'postwell: not all blocklists are fit for use'
tool dnsbl remove all.example closed.example dead.example mute.example
tool dnsbl test
tool security set --dnsbl yes
refute sendFromLan --to "alice@$DOMAIN"
expect contains "$out" 'blocked using good.example'
tool security set --dnsbl no
expect sendFromLan --to "alice@$DOMAIN"

step "a virus is refused while the scanner is on"
tool security set --anti-virus yes
expect equal "$out" "Spam filter on, DNS blocklists off, virus scanner on; the daemons follow."
refute sendFromLan --to "alice@$DOMAIN" --body "$EICAR"
expect contains "$out" '550 5.7.1 Blocked by the virus scanner'
tool security apply
expect tagged "${gtube[@]}"

step "all off: nothing runs, and all mail passes"
tool security set --spam no --anti-virus no
for script in scripts/SpamDaemon.sh scripts/MailScanner.sh bin/kest_anti-virus; do
  run "$T/$script" status
  expect equal "$status" 3
done
refute tagged "${gtube[@]}"
expect sendFromLan --to "alice@$DOMAIN" --body "$EICAR"

step "without signatures the scanner does not start, which is told"
expect rm -r /var/lib/clamav
expect mkdir /var/lib/clamav
fails security set --anti-virus yes
expect contains "$err" 'holds no virus signatures'
expect contains "$err" 'kest_anti-virus start'
refute sendFromLan --to "alice@$DOMAIN"
expect contains "$out" '451'
