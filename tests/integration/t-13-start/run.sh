#!/bin/bash
# Starting makes a configuration that is missing, and leaves no descriptor of the
# caller with the daemons.
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
setKey smtp_enabled yes
setKey imap_enabled yes

step "from nothing"
refute test -e "$POSTFIX/main.cf"
refute test -e "$T/etc/dovecot/dovecot.conf"
# The reader of a pipe sees its end only when nobody holds it open any more; so
# does the lock of a descriptor that the caller did not think of.
expect timeout 20 bash -c "exec 7>'$WORLD/lock'; flock 7; { '$SCRIPTS/DovecotDaemon.sh' start &&
  '$SCRIPTS/PostfixDaemon.sh' start; } 2>&1 | cat"
expect equal "$(openPorts)" "25 143"

step "no daemon holds a pipe or file of the caller"
expect timeout 20 bash -c "postwell smtp set --hostname '$DOMAIN' 2>&1 | cat" >/dev/null
held() { find "/proc/$1/fd" -type l -printf '%l\n' | grep -E "^$WORLD/(out|err|lock)|^/run/postwell/[a-z]+\.lock"; }
for pid in $(pgrep -x 'master|dovecot'); do refute held "$pid"; done
expect flock --nonblock "$WORLD/lock" true
expect flock --nonblock /run/postwell/postfix.lock true
expect flock --nonblock /run/postwell/dovecot.lock true

step "two at once get along"
for action in restart restart; do
  "$SCRIPTS/PostfixDaemon.sh" "$action" &
  "$SCRIPTS/DaemonConfSet.sh" smtp &
done
for job in $(jobs -p); do expect wait "$job"; done
expect equal "$(openPorts)" "25 143"

step "what runs is left so, whatever has become of its configuration; a restart makes it anew"
for part in "Postfix $POSTFIX/main.cf" "Dovecot $T/etc/dovecot/dovecot.conf"; do
  read -r service file <<<"$part"
  expect rm "$file"
  expect timeout 60 "$SCRIPTS/${service}Daemon.sh" start
  expect "$SCRIPTS/${service}Daemon.sh" status
  expect timeout 60 "$SCRIPTS/${service}Daemon.sh" restart
  expect test -e "$file"
done
expect equal "$(openPorts)" "25 143"
