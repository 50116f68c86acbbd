#!/bin/bash
# The virus scanner, the real ClamAV behind Postfix with signatures of its own: infected
# mail is refused whichever way it comes, and waits while it cannot be examined.
#
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
addUsers alice
addLan
antivirus=$T/bin/kest_anti-virus
scanner=$SCRIPTS/MailScanner.sh
printf %s "$EICAR" >"$WORLD/virus"
(cd "$WORLD" && zip -q virus.zip virus && cp virus.zip deep.zip) || die "cannot pack"
for _ in {1..20}; do
  expect mv "$WORLD/deep.zip" "$WORLD/inner.zip"
  (cd "$WORLD" && zip -q deep.zip inner.zip) || die "cannot pack"
done

(cd "$WORLD" && zip -q -P secret locked.zip virus) || die "cannot pack"
# more members than the scanner looks at
python3 -c 'import sys, zipfile
with zipfile.ZipFile(sys.argv[1], "w") as archive:
    for number in range(10001):
        archive.writestr(str(number), str(number))' "$WORLD/many.zip" || die "cannot pack"

# answered CODE SEND-OPTION...: mail to alice is answered so.
answered() {
  local code=$1
  shift
  sendFromLan --to "alice@$DOMAIN" "$@"
  grep -qE "^<(\*\*|- ) $code " <<<"$out" || die "not answered $code: $* - $(tail -n 5 <<<"$out")"
}
attached=(--body 'see the attachment' --attach-type application/octet-stream --attach-name a --attach)
# passes: clean mail gets into the mailbox, and was examined. The milter asks a clamd that was
# gone again after a second or two.
passes() {
  word=$(token)
  waitFor sendFromLan --to "alice@$DOMAIN" --h-Subject "$word" --add-header 'X-Virus-Status: Infected'
  waitFor inMailbox alice "$word"
  expect equal "$(grep '^X-Virus-Status:' "$(mailFile alice "$word")")" 'X-Virus-Status: Clean'
}
noneInfected() { refute inMailbox alice ANTIVIRUS-TEST; }

step "off: it does not run"
startMail
expect "$antivirus" start
run "$antivirus" status
expect equal "$status" 3
expect equal "$(configured smtpd_milters)$(configured non_smtpd_milters)" ""

step "on a fresh machine without signatures it says so, and mail waits"
setKey anti_virus_enable yes
expect "$SCRIPTS/DaemonConfSet.sh" mailscanner
refused '/var/lib/clamav holds no virus signatures: get them with freshclam' "$antivirus" start
answered 451
expect "$scanner" start
answered 451
echo 'Damaged:0:*:xyz' >/var/lib/clamav/local.ndb
refused 'the virus scanner does not start: ' "$antivirus" start
expect contains "$err" 'Malformed database'
refute "$antivirus" status
answered 451 --body "$EICAR"

step "with signatures clean mail passes"
addSignatures
expect "$antivirus" start
expect "$antivirus" start  # and once more is no failure
expect "$antivirus" status
expect "$scanner" status
expect "$SCRIPTS/check-install.sh"
passes

step "its milter makes files as its settings say; only the spam filter's makes them open to all"
mask=$(awk '$1 == "Umask:" { print $2 }' "/proc/$(</run/postwell/clamav-milter/milter.pid)/status")
expect equal "$mask" 0022
expect equal "$(stat -c '%a' /run/postwell/clamav-milter/milter.sock)" 666
passes

step "infected mail is refused: as text, attached, packed, packed too deep or too much to look"
answered 550 --body "$EICAR"
expect contains "$out" '550 5.7.1 Blocked by the virus scanner: Eicar-Test-Signature'
answered 550 "${attached[@]}" "@$WORLD/virus"
answered 550 "${attached[@]}" "@$WORLD/virus.zip"
answered 550 "${attached[@]}" "@$WORLD/deep.zip"
answered 550 "${attached[@]}" "@$WORLD/many.zip"
expect contains "$out" 'Heuristics.Limits.Exceeded.MaxFiles'
refute send --to "alice@$DOMAIN" --body "$EICAR" --auth PLAIN --auth-user alice --auth-password pw-alice
expect contains "$out" '550 5.7.1 Blocked'

step "from a program of this machine it comes back without the virus"
word=$(token)
expect sendmail -C "$POSTFIX" -f "alice@$DOMAIN" "alice@$DOMAIN" <<<"Subject: $word"$'\n\n'"$EICAR"
waitFor mailLogged 'status=bounced .Blocked by the virus scanner'
passes
noneInfected

step "with clamd killed nothing passes, and the same afterwards as before"
killed /run/postwell/clamav/clamd.pid
answered 451 --body "$EICAR"
answered 451 "${attached[@]}" "@$WORLD/virus.zip"
answered 451
expect "$antivirus" start
passes
answered 550 --body "$EICAR"

step "with its milter killed as well"
killed /run/postwell/clamav-milter/milter.pid
refute "$scanner" status
answered 451 --body "$EICAR"
expect "$scanner" start
passes
answered 550 --body "$EICAR"

step "while clamd does not answer mail waits for it"
clamd=$(</run/postwell/clamav/clamd.pid)
expect kill -STOP "$clamd"
(sleep 2 && kill -CONT "$clamd") &
SECONDS=0
answered 550 --body "$EICAR"
((SECONDS >= 1)) || die "it was answered at once"

step "nothing passes while both are restarted"
{ "$antivirus" restart && "$scanner" restart && "$antivirus" restart; } >"$WORLD/said" 2>&1 &
restarts=$!
while kill -0 "$restarts" 2>/dev/null; do answered '(550|451)' --body "$EICAR"; done
expect wait "$restarts"
noneInfected
passes

step "a configuration that ClamAV refuses leaves the old one in force"
before=$(<"$T/etc/clamav/clamd.conf")
echo 'NoSuchOption yes' >>"$ADDITIONS/clamd.conf"
refused "with the additions in $ADDITIONS/clamd.conf: " "$SCRIPTS/DaemonConfSet.sh" mailscanner
expect contains "$err" NoSuchOption
expect equal "$(<"$T/etc/clamav/clamd.conf")" "$before"
printf 'MaxThreads 2' >"$ADDITIONS/clamd.conf"  # and no end of the line
expect "$SCRIPTS/DaemonConfSet.sh" mailscanner
expect "$antivirus" restart
expect equal "$(clamconf -n -c "$T/etc/clamav" | grep MaxThreads)" 'MaxThreads = "2"'
expect grep -qx 'DatabaseDirectory /var/lib/clamav' "$T/etc/clamav/clamd.conf"
passes

step "an archive with a password passes, unless the administrator wants otherwise"
answered 250 "${attached[@]}" "@$WORLD/locked.zip"
echo 'AlertEncryptedArchive yes' >"$ADDITIONS/clamd.conf"
expect "$SCRIPTS/DaemonConfSet.sh" mailscanner
expect "$antivirus" restart
passes
answered 550 "${attached[@]}" "@$WORLD/locked.zip"

step "what takes too long to examine is refused"
echo 'MaxScanTime 1' >"$ADDITIONS/clamd.conf"
expect "$SCRIPTS/DaemonConfSet.sh" mailscanner
expect "$antivirus" restart
answered 550 "${attached[@]}" "@$WORLD/many.zip"
expect contains "$out" 'Heuristics.Limits.Exceeded.MaxScanTime'
: >"$ADDITIONS/clamd.conf"
expect "$SCRIPTS/DaemonConfSet.sh" mailscanner

step "one that does not answer in time is stopped before that is told"
expect "$antivirus" stop
expect "$antivirus" reload  # there is none, which is no failure
printf '#!/bin/sh\nexit 1\n' >/usr/local/sbin/clamdscan
expect chmod 755 /usr/local/sbin/clamdscan
run faketime -f '+0 x100' "$antivirus" start
expect equal "$status" 1
expect contains "$err" 'the virus scanner does not start: '
expect equal "$(pgrep -c '^clamd$')" 0
expect rm /usr/local/sbin/clamdscan
expect "$antivirus" start

step "wrong arguments"
for arguments in '' 'start now' begin; do
  # shellcheck disable=SC2086  # none, one or two
  run "$antivirus" $arguments
  expect equal "$status" 2
  expect contains "$err" 'usage: kest_anti-virus start|stop|restart|reload|status'
done
passes

step "its log goes on in a new file"
log=$T/var/log/clamd.log
expect mv "$log" "$log.1"
expect install -m 640 -o clamav /dev/null "$log"
expect "$antivirus" reload
answered 550 --body "$EICAR"
waitFor grep -q 'Eicar-Test-Signature.* FOUND' "$log"

step "switched off nobody looks"
setKey anti_virus_enable no
expect "$SCRIPTS/DaemonConfSet.sh" mailscanner
for service in "$antivirus" "$scanner"; do
  expect "$service" restart
  refute "$service" status
done
answered 250 --body "$EICAR"
waitFor inMailbox alice ANTIVIRUS-TEST
