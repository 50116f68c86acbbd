#!/bin/bash
# DNS blocklists, asked by the real Postfix of a toy name server: who is listed is refused
# and nobody else, whatever a list that is broken says or does not say.
#
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
addUsers alice
addLan
for number in {2..9}; do expect ip addr add "10.20.30.$number/24" dev lo; done
# a list that does not answer shall not take the scenario's time
echo 'options timeout:1 attempts:1' >>/etc/resolv.conf
startNames
startMail
lists=$P/etc/spamlist.conf

# accepted SEND-OPTION..., blocked LIST SEND-OPTION...: mail to alice from outside.
accepted() { sendFromLan --to "alice@$DOMAIN" "$@" || die "refused: $* - $(grep '^<\*\*' <<<"$out")"; }
blocked() {
  local list=$1
  shift
  refute sendFromLan --to "alice@$DOMAIN" "$@"
  grep -q "^<\*\* 554 5\.7\.1 .* blocked using $list" <<<"$out" || die "not blocked by $list: $out"
}

step "a file with another system's line ends, blanks and repeated names"
printf '%s\r\n' '[RBL server]' '  first.example' '' 'second.example ' first.example First.example \
  '[RHSBL server]' $'\tdomains.example' '' domains.example >"$lists"
cat >"$ZONE" <<'EOC'
1.30.20.10.second.example 127.0.0.2
1.30.20.10.second.example TXT because of "it" %s $x
bad.example.domains.example 127.0.0.2
EOC

step "off: nobody is asked"
expect "$SCRIPTS/DaemonConfSet.sh" smtp
accepted --from any@bad.example
refute asked 1.30.20.10.first.example
refute contains "$(configured smtpd_recipient_restrictions)" reject_r

step "on: each list once, after all that permits"
setKey spam_dnsbl_enable yes
expect "$SCRIPTS/DaemonConfSet.sh" smtp
expect contains "$(configured smtpd_recipient_restrictions)/" \
  'permit_mynetworks,permit_sasl_authenticated,reject_rbl_client first.example=127.0.0.[2..11],reject_rbl_client second.example=127.0.0.[2..11],reject_rhsbl_sender domains.example=127.0.0.[2..11]/'

step "a listed client is refused, one on no list is not"
blocked second.example
expect asked 1.30.20.10.first.example 1.30.20.10.second.example
accepted --local-interface 10.20.30.2
expect asked 2.30.20.10.first.example 2.30.20.10.second.example

step "a listed domain of the sender is refused, another is not"
blocked domains.example --local-interface 10.20.30.2 --from any@bad.example
accepted --local-interface 10.20.30.2 --from any@good.example

step "the machine itself, authenticated senders and whom a rule permits pass"
echo '1.0.0.127.second.example 127.0.0.2' >>"$ZONE"
expect send --to "alice@$DOMAIN" --from any@bad.example
accepted --auth PLAIN --auth-user alice --auth-password pw-alice --from "alice@$DOMAIN"
for rule in 'client --address 10.20.30.1' 'sender --domain bad.example' "recipient --address alice@$DOMAIN"; do
  read -r kind option name <<<"$rule"
  expect postwell access add "$kind" permit "$option" "$name" >/dev/null
  accepted --from any@bad.example
  expect postwell access remove "$kind" "$option" "$name" >/dev/null
  blocked second.example --from any@bad.example
done

step "an answer that tells of an error refuses nobody"
number=3  # another client and domain each time: Postfix remembers what it has asked
for answer in 127.255.255.254 127.255.255.252 127.0.0.1 127.0.0.12 127.0.1.2 192.0.2.1; do
  printf '%s %s\n' "$number.30.20.10.second.example" "$answer" \
    "d$number.example.domains.example" "$answer" >>"$ZONE"
  accepted --local-interface "10.20.30.$number" --from "any@d$number.example"
  expect asked "$number.30.20.10.second.example" "d$number.example.domains.example"
  number=$((number + 1))
done
echo '9.30.20.10.second.example 127.0.0.11' >>"$ZONE"
blocked second.example --local-interface 10.20.30.9

step "a list that does not answer hides no other, and a dead name server stops no mail"
echo 'first.example silence' >>"$ZONE"
expect "$SCRIPTS/PostfixDaemon.sh" reload
blocked second.example --local-interface 10.20.30.9
accepted --local-interface 10.20.30.2
expect kill "$names"
wait "$names"
expect "$SCRIPTS/PostfixDaemon.sh" reload
accepted --local-interface 10.20.30.9

step "a section is found in any case and with blanks around its name, as the library finds it"
found=0
for header in '[rbl server]' ' [ RBL server ] '; do
  printf '%s\n' "$header" "fourth$((++found)).example" '[ Rhsbl Server ]' others.example >"$lists"
  expect "$SCRIPTS/DaemonConfSet.sh" smtp
  expect contains "$(configured smtpd_recipient_restrictions)/" \
    "reject_rbl_client fourth$found.example=127.0.0.[2..11],reject_rhsbl_sender others.example=127.0.0.[2..11]/"
  run postwell dnsbl list
  expect contains "$out" "fourth$found.example"
  expect contains "$out" others.example
done

step "a name that is none is refused, and the old lists stay in force"
before=$(<"$POSTFIX/main.cf")
for name in 'good.example, permit' 'one two' "\$myhostname" 'a.example=127.0.0.1' '-x.example' '#off.example' 'täuschung.example'; do
  printf '[RBL server]\ngood.example\n%s\n[RHSBL server]\n' "$name" >"$lists"
  refused "spamlist.conf: \"$(LC_ALL=C tr -c ' -~\n' '?' <<<"$name")\" is no host name" "$SCRIPTS/DaemonConfSet.sh" smtp
  expect equal "$(<"$POSTFIX/main.cf")" "$before"
done
expect rm "$lists"
refused "cannot read $lists" "$SCRIPTS/DaemonConfSet.sh" smtp

step "no list is none"
printf '[RBL server]\n[RHSBL server]\n' >"$lists"
expect "$SCRIPTS/DaemonConfSet.sh" smtp
refute contains "$(configured smtpd_recipient_restrictions)" reject_r
accepted
