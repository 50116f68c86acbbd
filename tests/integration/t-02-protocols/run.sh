#!/bin/bash
# Saving the receiving protocols opens the ports of exactly those that are on, and
# a mail sent by SMTP is read back by each of them, over TLS as well.
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
addUsers alice
expect postwell smtp set --enabled yes --hostname "$DOMAIN" >/dev/null

# switch POP3 POP3S IMAP IMAPS PORTS: saves and looks at the open ports.
switch() {
  expect postwell protocol set --pop3 "$1" --pop3s "$2" --imap "$3" --imaps "$4" >/dev/null
  expect equal "$(openPorts)" "$5"
}

connected() { [[ -n $(ss -Htn state established "dport = :$1") ]]; }

step "each protocol alone"
switch yes no no no "25 110"
switch no yes no no "25 995"
switch no no yes no "25 143"
switch no no no yes "25 993"

step "all four, on IPv4 and IPv6"
switch yes yes yes yes "25 110 143 993 995"
for port in 25 110 143 993 995; do
  expect test -n "$(ss -Hltn4 "sport = :$port")"
  expect test -n "$(ss -Hltn6 "sport = :$port")"
done

step "a mail is read back by each, in plain and over TLS"
word=$(token)
expect send --to "alice@$DOMAIN" --body "$word"
waitFor inMailbox alice "$word"
expect contains "$(fetch 'imap://127.0.0.1/INBOX;MAILINDEX=1' alice)" "$word"
expect contains "$(fetch 'imap://127.0.0.1/INBOX;MAILINDEX=1' alice --ssl-reqd)" "$word"
expect contains "$(fetch 'imaps://127.0.0.1/INBOX;MAILINDEX=1' alice)" "$word"
expect contains "$(fetch 'imaps://[::1]/INBOX;MAILINDEX=1' alice)" "$word"
expect contains "$(fetch pop3://127.0.0.1/1 alice)" "$word"
expect contains "$(fetch pop3://127.0.0.1/1 alice --ssl-reqd)" "$word"
expect contains "$(fetch pop3s://127.0.0.1/1 alice)" "$word"

step "a wrong password is refused"
refute fetch imap://127.0.0.1/INBOX alice --user alice:wrong >/dev/null

step "a client that is made to wait for that does not hold up the next change"
fetch imap://127.0.0.1/INBOX alice --user alice:wrong >/dev/null &
waitFor connected 143
start=$SECONDS
switch yes no no no "25 110"
expect test $((SECONDS - start)) -lt 8

step "all off again"
switch no no no no "25"
