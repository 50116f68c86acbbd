#!/bin/bash
# What else the configuration does: our domains, the copy of all mail, a running
# Postfix that follows without a restart, the administrator's additions.
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
addUsers alice carol
startMail

step "the domains of the list are ours; a running Postfix follows at once"
expect send --to "alice@$DOMAIN"  # its processes now run with the old settings
master=$(awk '{ print $1 }' "$T/var/spool/postfix/pid/master.pid")
setKey canonical_domain "second.example, third.example"
setKey always_bcc "carol@third.example"
expect "$SCRIPTS/DaemonConfSet.sh" smtp
carolHas() { sleep 0.2 && inMailbox carol "$1"; }
follows() {
  word=$(token)
  send --to alice@second.example --body "$word" && carolHas "$word"
}
waitFor follows
waitFor inMailbox alice "$word"
expect equal "$(awk '{ print $1 }' "$T/var/spool/postfix/pid/master.pid")" "$master"

step "the usual main.cf names our folder, once, and keeps what it says"
expect equal "$(postconf -c /etc/postfix -h alternate_config_directories 2>/dev/null)" "$POSTFIX"
postconf -c /etc/postfix -e "alternate_config_directories = /elsewhere" "mail_name = Mine" 2>/dev/null
expect "$SCRIPTS/DaemonConfSet.sh" smtp
expect "$SCRIPTS/DaemonConfSet.sh" smtp
expect equal "$(postconf -c /etc/postfix -h alternate_config_directories 2>/dev/null)" "/elsewhere, $POSTFIX"
expect equal "$(postconf -c /etc/postfix -h mail_name 2>/dev/null)" Mine

step "an ordinary user's program may hand in mail by our configuration"
word=$(token)
expect setpriv --reuid alice --clear-groups env MAIL_CONFIG="$POSTFIX" /usr/sbin/sendmail "alice@$DOMAIN" <<<"$word"
waitFor inMailbox alice "$word"

step "the administrator's additions replace what is generated, without a warning"
printf '%s\n' '# mine' 'message_size_limit = 4096000' "smtpd_banner = \$myhostname" '  ESMTP hello' 'biff = yes' \
  >"$ADDITIONS/postfix-main.cf"
printf '%s\n' '127.0.0.1:2526 inet n - n - - smtpd' '  -o smtpd_banner=second' >"$ADDITIONS/postfix-master.cf"
echo 'mail_max_userip_connections = 33' >"$ADDITIONS/dovecot.conf"
sum=$(sha256sum "$ADDITIONS"/*)
expect "$SCRIPTS/DaemonConfSet.sh" smtp
expect "$SCRIPTS/PostfixDaemon.sh" restart
expect equal "$(postconf -c "$POSTFIX" -n 2>&1 >/dev/null)" ""
expect equal "$(configured message_size_limit)" 4096000
expect send --quit-after CONNECT
expect contains "$out" "220 $DOMAIN ESMTP hello"
expect send --port 2526 --quit-after CONNECT
expect contains "$out" "220 second"
expect "$SCRIPTS/DaemonConfSet.sh" protocol
expect equal "$(doveconf -h -c "$T/etc/dovecot/dovecot.conf" mail_max_userip_connections)" 33
expect equal "$(sha256sum "$ADDITIONS"/*)" "$sum"
