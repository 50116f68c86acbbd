#!/bin/bash
# What "postwell log" tells is what Postfix's own log tells, whichever way it is asked.
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
here=$(dirname "$(readlink -f "$0")")
rule=$here/../t-17-mail-log-feed/rule
addUsers alice bob
startMail
expect postwell alias add team --user alice --user bob >/dev/null
cat >"$ADDITIONS/postfix-main.cf" <<'EOC'
transport_maps = inline:{ok.example=smtp:[127.0.0.1]:2601, no.example=smtp:[127.0.0.1]:2602}
EOC
expect "$SCRIPTS/DaemonConfSet.sh" smtp
smtp-sink -u nobody 127.0.0.1:2601 10 &
smtp-sink -u nobody -f RCPT 127.0.0.1:2602 10 &

step "nothing yet: it says why"
run postwell log list
expect equal "$status:$out" "0:"
expect contains "$err" "maillogd is not running"
expect contains "$err" "mailfeed is not running"
refute test -e "$T/etc/maillog/maillog.db"
expect "$SCRIPTS/MailLogDaemon.sh" start

step "mail of each kind"
expect send --to "team@$DOMAIN" --from "o'hara%_x@elsewhere.example"
expect send --to friend@ok.example
expect send --to friend@no.example
expect send --to friend@later.example  # nobody answers there
head -c 300000 /dev/zero | base64 >"$WORLD/large"
expect send --to "bob@$DOMAIN" --body "@$WORLD/large"
waitFor mailLogHas 7
expect "$SCRIPTS/MailLogDaemon.sh" stop

# What Postfix's log tells so far, read without us. agrees VERB [OPTION]...: whether
# "postwell log" answers the same, as a table and as JSON.
told=$WORLD/told
readLog() { "$rule" --time "$MAILLOG" >"$told" || die "cannot read $MAILLOG"; }
agrees() { "$here/agrees" "$told" "$@"; }
readLog
id=$(grep "<o'hara" "$told" | head -n 1 | cut -d ' ' -f 7-)
mapfile -t times < <(cut -d ' ' -f 1 "$told" | sort -n)
iso() { date -u -d "@$1" +%Y-%m-%dT%H:%M:%SZ; }
middle=$(iso "${times[3]}")

step "all of them; by each condition, and by several"
expect equal "$(logAsked)" "$(cut -d ' ' -f 2,4- "$told" | sort)"
for conditions in "" "--status received" "--status sent" "--status bounced" "--status resent" \
  "--to bob" "--from O'HARA%_x" "--from nobody" "--message-id ${id:3:12}" "--message-id %" \
  "--larger 102400" "--smaller 102400" "--larger 400 --smaller 102400" "--since $middle" \
  "--until $middle" "--since $middle --until $middle" \
  "--from sender --to example --status sent --since $middle --smaller 100000"; do
  read -ra words <<<"$conditions"
  expect agrees list "${words[@]}"
  expect agrees list --all "${words[@]}"
  expect agrees count "${words[@]}"
  expect agrees search elsewhere "${words[@]}"
  expect agrees count "o'hara%" "${words[@]}"
done
for text in "BOB@" "$id" "o'hara%" "_" "nobody of this name"; do
  expect agrees search "$text"
  expect agrees count "$text"
done
expect equal "$(logAsked --since -1h)" "$(logAsked)"
expect equal "$(logAsked --until -1h)" ""
expect equal "$(logAsked --from "x' OR '1'='1")" ""

step "one message"
for message in "$id" "<$id>" "${id%?}" "%"; do expect agrees show "$message"; done

step "in each order, page by page"
for sort in date from to size status message-id; do
  for desc in "" --desc; do
    for page in "--limit 3" "--limit 3 --offset 2" "--offset 6" "--limit -1 --offset 1" "--limit 0"; do
      read -ra words <<<"--sort $sort $desc $page"
      expect agrees list "${words[@]}"
      expect agrees search example "${words[@]}"
    done
  done
done

step "the traffic: messages and volume, of each period, as a table, JSON and CSV"
for period in day week month half-year; do expect agrees stats "$period"; done

step "two logs are moved aside"
expect "$T/bin/maillogd" --background --cache-time 0 --rotate-threshold 3 --group postfix
expect "$SCRIPTS/MailLogDaemon.sh" start
stored() { equal "$(postwell log count --all 2>/dev/null)" "$1" >/dev/null; }
number=$(wc -l <"$told")
for ((mail = 1; mail <= 7; mail++)); do
  expect send --from "writer$mail@elsewhere.example" --to "alice@$DOMAIN"
  waitFor stored $((number + mail))
done
expect "$SCRIPTS/MailLogDaemon.sh" stop
readLog
saved=("$T"/etc/maillog/maillog_*.db)
expect equal "${#saved[@]}" 2
expect agrees archives

step "all logs as one"
for conditions in "" "--status received" "--to alice" "--since $middle --larger 100"; do
  read -ra words <<<"$conditions"
  expect agrees count --all "${words[@]}"
  for order in "" --desc "--sort size --desc" "--sort from --limit 5 --offset 4" \
    "--desc --limit 4 --offset 7"; do
    read -ra more <<<"$order"
    expect agrees list --all "${words[@]}" "${more[@]}"
    expect agrees search elsewhere --all "${words[@]}" "${more[@]}"
  done
done
expect agrees show "$id" --all
for period in day week month half-year; do expect agrees stats "$period"; done

step "a stale log tells when its last record was made"
run postwell log list
expect contains "$err" "maillogd is not running"
expect contains "$err" "last record at $(date -d "@$(tail -n 1 "$told" | cut -d ' ' -f 1)" "+%F %T %z")."
run postwell log stats --json
expect contains "$err" "mailfeed is not running"

step "emptied, when one means it; saved logs and traffic stay"
live=$(logAsked)
run postwell log clear </dev/null
expect equal "$status" 2
expect equal "$(logAsked)" "$live"
expect postwell log clear --yes >/dev/null
expect equal "$(logAsked)" ""
left=$(($(postwell log count --all)))
expect equal "$left" "$(($(wc -l <"$told") - $(wc -l <<<"$live")))"
expect agrees stats day
