#!/bin/bash
# Outgoing mail through a relay, a second Postfix: with its password, with a wrong
# one, with TLS required.
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
addUsers alice
startMail
expect "$(dirname "$0")/outside" 2500

atRelay() { grep -qr -- "$1" "$WORLD/outside/mail"; }
outward() { send --from "alice@$DOMAIN" --to friend@outside.example --body "$1"; }
relayWithoutTls() { send --port 2500 --quit-after EHLO && ! grep -q STARTTLS <<<"$out"; }
# setRelay OPTION...: the password comes from standard input when there is one.
setRelay() { expect postwell relay set "$@" >/dev/null; }

step "with the password: delivered, and the password stays secret"
setRelay --enabled yes --server 127.0.0.1 --port 2500 --auth yes --account smart \
  --password-stdin <<<s3cret
word=$(token)
expect outward "$word"
waitFor atRelay "$word"
expect mailLogged "relay=127.0.0.1\[127.0.0.1\]:2500, .*status=sent"
refute grep -r s3cret "$P/etc"
expect equal "$(stat -c '%U %a' "$POSTFIX/sasl_passwd" "$POSTFIX/sasl_passwd.lmdb" | uniq)" "root 600"

step "a wrong password defers, the right one then delivers"
setRelay --password-stdin <<<wrong
word=$(token)
expect outward "$word"
waitFor mailLogged "status=deferred \(SASL authentication failed"
refute atRelay "$word"
setRelay --password-stdin <<<s3cret
expect postqueue -c "$POSTFIX" -f
waitFor atRelay "$word"

step "TLS required"
setRelay --tls yes
word=$(token)
expect outward "$word"
waitFor atRelay "$word"
expect grep -q "using TLS" <(grep -rh -B 20 -- "$word" "$WORLD/outside/mail")
postconf -c "$WORLD/outside/etc" -e smtpd_tls_security_level=none
expect postfix -c "$WORLD/outside/etc" reload >/dev/null 2>&1
waitFor relayWithoutTls
word=$(token)
expect outward "$word"
waitFor mailLogged "status=deferred \(TLS is required"
refute atRelay "$word"

step "without authentication the relay's refusal bounces; the password table is gone"
setRelay --tls no --auth no
expect outward "$(token)"
waitFor mailLogged "to=<friend@outside.example>, .*status=bounced"
refute test -e "$POSTFIX/sasl_passwd"
refute test -e "$POSTFIX/sasl_passwd.lmdb"

step "the relay off: mail is looked for a way of its own"
setRelay --enabled no
expect equal "$(configured relayhost)" ""
setRelay --enabled yes --server 2001:db8::25 --port 0
expect equal "$(configured relayhost)" "[2001:db8::25]"
