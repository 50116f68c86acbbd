#!/bin/bash
# The spam filter as a service: spamd and its milter start, change and stop without a mail
# being lost, and nothing that is stored as a list adds to their configuration.
#
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
addUsers alice
addLan

step "it starts, and only when it is switched on"
for service in SpamDaemon MailScanner; do
  expect "$SCRIPTS/$service.sh" start
  run "$SCRIPTS/$service.sh" status
  expect equal "$status" 3
done
startSpamFilter
startMail
for service in SpamDaemon MailScanner; do
  expect "$SCRIPTS/$service.sh" start  # and once more is no failure
  expect "$SCRIPTS/$service.sh" status
done
expect "$SCRIPTS/check-install.sh"

step "only root makes or removes something where its pid file and its socket are"
expect equal "$(stat -c '%U %a' /run/postwell/spamd)" 'root 755'

step "a start leaves what runs alone, whatever has become of its configuration"
for file in "$T/etc/spam/blackwhite.cf" "$T/etc/spamassassin/local.cf"; do
  expect rm "$file"
  expect timeout 60 "$SCRIPTS/SpamDaemon.sh" start
  expect timeout 60 "$SCRIPTS/SpamDaemon.sh" restart
  expect test -e "$file"
done

step "wrong arguments"
for arguments in '' 'start now' begin; do
  for service in SpamDaemon MailScanner; do
    # shellcheck disable=SC2086  # none, one or two
    run "$SCRIPTS/$service.sh" $arguments
    expect equal "$status" 2
    expect contains "$err" "usage: $service.sh start|stop|"
  done
done

step "without a rule the contents decide"
marked ham --body 'Shall we meet on Monday?'
marked spam --body 'XJS*C4JDBQADN1.NSBN3*2IDNEN*GTUBE-STANDARD-ANTI-UBE-TEST-EMAIL*C.34X'

# fileRules SQL: past every check.
fileRules() {
  run python3 -c 'import sqlite3, sys
db = sqlite3.connect(sys.argv[1])
db.executescript(sys.argv[2])' "$P/etc/postwell.db" "$1"
  expect equal "$status" 0
}

step "what SpamAssassin cannot be told of adds nothing to its configuration"
expect postwell blacklist add sender --domain first.example >/dev/null  # makes the file
for name in "'a@b.example' || char(10) || 'required_score 0.1'" "'*@*'" "'x@y.example evil@e.example'" \
  "'x@y.example #'" "'include /etc/passwd'" "'a\\@b.example'" "'a' || char(0) || 'b@c.example'"; do
  for kind in 0 1 2; do fileRules "insert into blackwhite_table values($kind, $name, 0, 1)"; done
done
run "$T/bin/kest_spam_blackwhite"
expect equal "$status" 0
expect contains "$err" 'is left out'
marked ham --from evil@e.example
# an account is what stands before an "@"
expect equal "$(grep -v '^blocklist_from [ax]@[a-z.]*$' "$T/etc/spam/blackwhite.cf")" \
  "blocklist_from *@first.example *@*.first.example"
fileRules "delete from blackwhite_table"

step "no mail goes by while the lists change"
expect postwell blacklist add sender --domain elsewhere.example >/dev/null
for number in 1 2 3; do
  postwell blacklist add sender --address "other$number@x.example"
done >"$WORLD/said" 2>&1 &
changes=$!
while kill -0 "$changes" 2>/dev/null; do marked spam --from any@elsewhere.example; done
expect wait "$changes"
expect equal "$(grep -c 'the spam filter follows' "$WORLD/said")" 3

step "a maker that fails is told, and the rule is stored"
expect mv "$T/etc/spam" "$T/etc/spam.aside"
expect touch "$T/etc/spam"
run postwell blacklist add sender --domain late.example
expect equal "$status" 1
expect contains "$err" 'run "/var/packages/Postwell/target/bin/kest_spam_blackwhite"'
expect rm "$T/etc/spam"
expect mv "$T/etc/spam.aside" "$T/etc/spam"
expect "$T/bin/kest_spam_blackwhite"
marked spam --from any@late.example

step "a configuration that SpamAssassin refuses leaves the old one in force"
echo 'no such option' >"$T/etc/spamassassin/broken.cf"
refused 'SpamAssassin refuses the configuration: config: failed to parse line in broken.cf (line 1): no such option' "$SCRIPTS/DaemonConfSet.sh" spam
expect rm "$T/etc/spamassassin/broken.cf"
setKey spam_required_score '5; include /etc/passwd'
refused 'spam_required_score is "5; include /etc/passwd"' "$SCRIPTS/DaemonConfSet.sh" spam
setKey spam_required_score 5.00
marked spam --from any@late.example

step "with spamd gone mail is accepted, and marked again when it is back"
expect "$SCRIPTS/SpamDaemon.sh" stop
refute "$SCRIPTS/SpamDaemon.sh" status
word=$(token)
expect sendFromLan --to "alice@$DOMAIN" --from any@late.example --h-Subject "$word"
waitFor inMailbox alice "$word"
expect "$SCRIPTS/SpamDaemon.sh" start
marked spam --from any@late.example

step "lists that change while it starts are read"
expect "$SCRIPTS/SpamDaemon.sh" stop
expect mkfifo "$WORLD/pause"
cat >"$WORLD/Pause.pm" <<EOC
package Pause;
use parent 'Mail::SpamAssassin::Plugin';
sub new { open(my \$pause, '<', '$WORLD/pause'); <\$pause>; return shift->SUPER::new(@_); }
1;
EOC
pause=$T/etc/spamassassin/pause.cf  # comes behind the lists
echo "loadplugin Pause $WORLD/Pause.pm" >"$pause"
"$SCRIPTS/SpamDaemon.sh" start &
starting=$!
exec {writer}>"$WORLD/pause"  # when spamd has come so far
expect rm "$pause"
expect postwell blacklist add sender --domain starting.example >/dev/null
exec {writer}>&-
expect wait "$starting"
marked spam --from any@starting.example

step "switched off it is not asked and does not run"
setKey spam_enable no
expect "$SCRIPTS/DaemonConfSet.sh" smtp
for service in MailScanner SpamDaemon; do
  expect "$SCRIPTS/$service.sh" restart
  refute "$SCRIPTS/$service.sh" status
done
expect equal "$(configured smtpd_milters)" ""
word=$(token)
expect sendFromLan --to "alice@$DOMAIN" --from any@late.example --h-Subject "$word"
waitFor inMailbox alice "$word"
refute grep -q '^X-Spam' "$(mailFile alice "$word")"
