#!/bin/bash
# The system's logrotate rotates the daemons' logs, and both go on in the new ones.
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
addUsers alice
startMail
rotate() { logrotate --force --state "$WORLD/rotation" /etc/logrotate.d/postwell; }
attributes() { stat -c '%U %a' "$MAILLOG" "$T/var/log/dovecot.log"; }

# deliver: one message, by the one daemon and the other; its queue id is in $id.
deliver() {
  expect send --to "alice@$DOMAIN"
  id=$(sed -n 's/.*queued as \([[:alnum:]]*\).*/\1/p' <<<"$out")
  [[ -n $id ]] || die "no queue id in: $out"
  waitFor mailLogged "$id: removed"
}
# In the newest log alone: the word of this delivery.
dovecotLogged() { grep -q "lmtp(alice).*saved mail" "$T/var/log/dovecot.log"; }

step "before"
deliver
waitFor dovecotLogged
before=$(attributes)

for round in 1 2; do
  step "round $round"
  first=$id
  expect rotate
  expect equal "$(attributes)" "$before"
  refute mailLogged "$first"
  expect grep -q "$first: removed" "$MAILLOG.1"
  deliver
  waitFor dovecotLogged
  refute grep -q "$id" "$MAILLOG.1"
done

step "only the newest of the old ones is not compressed"
expect gzip -t "$MAILLOG.2.gz"
