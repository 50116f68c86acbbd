#!/bin/bash
# No value of a setting adds a line or a parameter to a configuration or expands
# there, whatever it holds: it is refused or stands as it is.
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
expect postwell smtp set --smtps yes --hostname "$DOMAIN" >/dev/null
expect postwell relay set --enabled yes --server relay.example --auth yes --account smart \
  --password-stdin >/dev/null <<<s3cret
parameters() {
  postconf -c "$POSTFIX" -n | sed 's/ =.*//' && postconf -c "$POSTFIX" -M && postconf -c "$POSTFIX" -P
}
dovecotSettings() { doveconf -n -c "$T/etc/dovecot/dovecot.conf"; }
expect "$SCRIPTS/DaemonConfSet.sh" protocol
names=$(parameters)
dovecot=$(dovecotSettings)
cp "$SETTINGS" "$WORLD/good"
# shellcheck disable=SC2016  # nothing here is to expand, that is the point
hostile=('$myhostname' '${mynetworks}' '`id`' '"' 'a"b="c' '}' '{ a' "\\" '\n' ' '
  'a b' ',' 'a, b' 'a; b' '; biff = yes' 'x" biff="yes' '# x' '%s' "'" '..' '[a]' '*' '<a' $'\t' $'a\rb' $'\x01'
  "\$(touch $WORLD/expanded)")

# tryAll KEY...: each value in turn, in all the keys; tells how many were taken.
tryAll() {
  local key value taken=0
  for value in "${hostile[@]}"; do
    for key in "$@"; do setKey "$key" "$value"; done
    run "$SCRIPTS/DaemonConfSet.sh" smtp
    if ((status == 0)); then
      taken=$((taken + 1))
      expectUnharmed "$1" "$value"
    else
      equal "$status:$(wc -l <"$WORLD/err")" 1:1 || die "$1 = $value: $err"
    fi
    equal "$(parameters)" "$names" || die "$1 = $value"
  done
  cp "$WORLD/good" "$SETTINGS"
  echo "$*: $taken of ${#hostile[@]} taken"
}

inPostfix() { postconf -c "$POSTFIX" -xh "$1"; }

# What was taken stands as it is, to Postfix's own eyes.
expectUnharmed() {
  case $1 in
    smtp_hostname) expect equal "$(inPostfix myhostname)" "$2" ;;
    smtp_relay_server) expect equal "$(inPostfix relayhost)" "[$2]" ;;
    canonical_domain) expect equal "$(inPostfix mydestination)" "$DOMAIN, localhost, $2" ;;
    always_bcc) expect equal "$(inPostfix always_bcc)" "$2" ;;
    smtp_relay_account)
      expect equal "$(postmap -c "$T/etc/postmap" -q '[relay.example]' "lmdb:$POSTFIX/sasl_passwd")" \
        "$2:s3cret"
      ;;
  esac
}

step "string keys that reach Postfix"
for key in smtp_hostname smtp_relay_server smtp_relay_account canonical_domain always_bcc; do tryAll "$key"; done

step "keys that do not, or only as a switch"
tally=$(tryAll account_type acc_domain_name win_domain_short_name smtp_auth_enabled) || die "$tally"
expect contains "$tally" ": ${#hostile[@]} of"

step "numbers"
for key in smtp_port smtps_port message_limit smtp_relay_server_port; do tryAll "$key"; done

step "a stored password that is none"
for value in "${hostile[@]}"; do
  setKey smtp_relay_password "$value"
  run "$SCRIPTS/DaemonConfSet.sh" smtp
  expect equal "$status" 1
done
cp "$WORLD/good" "$SETTINGS"

step "a dollar of the always-BCC address is a dollar"
setKey always_bcc "dollar\$myhostname@$DOMAIN"
expect "$SCRIPTS/DaemonConfSet.sh" smtp
expect equal "$(inPostfix always_bcc)" "dollar\$myhostname@$DOMAIN"

step "Dovecot's configuration takes none of it"
for key in pop3_enabled imap_enabled smtp_hostname; do
  for value in "${hostile[@]}"; do
    setKey "$key" "$value"
    expect "$SCRIPTS/DaemonConfSet.sh" protocol
    expect equal "$(dovecotSettings)" "$dovecot"
  done
done
refute test -e "$WORLD/expanded"
