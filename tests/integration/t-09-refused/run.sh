#!/bin/bash
# A configuration that cannot be: the old one stays in force, the caller learns it
# by exit status 1 and one line on stderr, which the system log has as well.
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
addUsers alice
startMail
inForce() { cat "$POSTFIX/main.cf" "$POSTFIX/master.cf" "$T/etc/dovecot/dovecot.conf"; }
good=$(inForce)
cp "$SETTINGS" "$WORLD/good"
cp -r "$ADDITIONS" "$WORLD/additions"
withoutAdditions() { cp "$WORLD"/additions/* "$ADDITIONS/"; }

# bad KEY VALUE...: each value is refused, naming the key.
bad() {
  local key=$1 value
  shift
  for value in "$@"; do
    setKey "$key" "$value"
    refused "$key is " "$SCRIPTS/DaemonConfSet.sh" smtp
    expect equal "$(inForce)" "$good"
  done
  cp "$WORLD/good" "$SETTINGS"
}

step "values that are not what their key wants"
bad smtp_port 0 65536 -1 twentyfive "25 " 25x 99999999999
bad message_limit -1 2048 ten
bad smtp_hostname "a b" -a.example a..example .example example. 1.2.3.4 "$(printf 'a%.0s' {1..64}).example"
bad canonical_domain "a.example b.example" "a.example,b.example" "a.example, *" "@a.example"
bad always_bcc "a b" "a,b" "a@b@c.example" "a@-b" "<a@b.example>"
setKey smtp_ssl_enabled yes && cp "$SETTINGS" "$WORLD/good"
bad smtps_port 0 25 smtps
setKey smtp_ssl_enabled no
setKey smtp_relay_enabled yes && cp "$SETTINGS" "$WORLD/good"
bad smtp_relay_server "" "[a.example]" a.example:25 1.2.3.256 1:2:3 :::
setKey smtp_relay_server a.example && cp "$SETTINGS" "$WORLD/good"
bad smtp_relay_server_port -1 65536 submission
setKey smtp_relay_auth_enabled yes
refused "relay's password table" "$SCRIPTS/DaemonConfSet.sh" smtp
expect equal "$(inForce)" "$good"
setKey smtp_relay_enabled no

step "the library hands the failure on, and the daemon goes on as before"
setKey canonical_domain "not a domain"
run postwell smtp set --port 2525
expect equal "$status" 1
expect equal "$(openPorts)" "25 143"
word=$(token)
expect send --to "alice@$DOMAIN" --body "$word"
waitFor inMailbox alice "$word"
setKey canonical_domain ""
setKey smtp_port 25

step "the administrator's additions to Postfix"
for addition in 'message_size_limit = big' 'no equals sign' "relayhost = \${" \
  'inet_interfaces = 192.0.2.77' 'queue_directory = /nonexistent' 'no_such_parameter = 1' \
  'smtpd_timeout = 5q' 'smtpd_client_connection_count_limit = many'; do
  echo "$addition" >"$ADDITIONS/postfix-main.cf"
  refused "refuses the configuration with the additions in $ADDITIONS/postfix-main.cf: " \
    "$SCRIPTS/DaemonConfSet.sh" smtp
  expect equal "$(inForce)" "$good"
done
withoutAdditions
for addition in 'half a line' 'extra unix - - n - - no-such-program'; do
  echo "$addition" >"$ADDITIONS/postfix-master.cf"
  refused "refuses the configuration with the additions in $ADDITIONS/postfix-master.cf: " \
    "$SCRIPTS/DaemonConfSet.sh" smtp
  expect equal "$(inForce)" "$good"
done
withoutAdditions

step "and to Dovecot"
for addition in 'no_such_setting = 1' 'service {' 'first_valid_uid = x'; do
  echo "$addition" >"$ADDITIONS/dovecot.conf"
  refused "Dovecot refuses the configuration with the additions in $ADDITIONS/dovecot.conf: " \
    "$SCRIPTS/DaemonConfSet.sh" protocol
  expect equal "$(inForce)" "$good"
done
run postwell protocol set --imaps yes
expect equal "$status" 1
expect equal "$(openPorts)" "25 143"
withoutAdditions
setKey imaps_enabled no

step "settings that cannot be read"
mv "$SETTINGS" "$WORLD/away"
refused "cannot read $SETTINGS" "$SCRIPTS/DaemonConfSet.sh" smtp
refused "cannot read $SETTINGS" "$SCRIPTS/DaemonConfSet.sh" protocol
mv "$WORLD/away" "$SETTINGS"

step "a daemon that is not there, and someone who may not"
mv /usr/sbin/postconf /usr/bin/doveconf "$WORLD"
refused "Postfix is not installed (there is no postconf)" "$SCRIPTS/DaemonConfSet.sh" smtp
refused "Dovecot is not installed (there is no doveconf)" "$SCRIPTS/DaemonConfSet.sh" protocol
mv "$WORLD/postconf" /usr/sbin && mv "$WORLD/doveconf" /usr/bin
for script in "DaemonConfSet.sh smtp" "PostfixDaemon.sh restart" "DovecotDaemon.sh stop"; do
  # shellcheck disable=SC2086  # the verb is a word of its own
  run setpriv --reuid alice --clear-groups "$SCRIPTS/"$script
  expect equal "$status $err" "1 ${script%% *}: must be run as root"
done

step "nothing is left half-way, and all is well again"
expect equal "$(find "$T/etc" -name '*.new*')" ""
expect "$SCRIPTS/DaemonConfSet.sh" smtp
expect "$SCRIPTS/DaemonConfSet.sh" protocol
expect equal "$(inForce)" "$good"
