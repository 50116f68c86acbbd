#!/bin/bash
# Mail to an alias reaches each of its members: a user, the users of a group, another
# alias, an outside address. Changing the alias changes who gets the next mail.
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
addUsers alice bob carol dave
expect groupadd crew
expect usermod -aG crew bob
expect usermod -g crew carol
startMail

# mailTo NAME: sends to it; the message's word is then in $word.
mailTo() {
  word=$(token)
  expect send --to "$1@$DOMAIN" --h-Subject "To $1 $word"
}
reached() { waitFor inMailbox "$1" "$word"; }

step "an alias with a user, a group, a nested alias and an outside address"
expect postwell alias add heads --user dave
expect postwell alias add team --user alice --group crew --alias heads \
  --address friend@outside.example
mailTo team
for user in alice bob carol dave; do reached "$user"; done
waitFor mailLogged "to=<friend@outside.example>, orig_to=<team@$DOMAIN>"

step "a member that is taken out gets no more"
expect postwell alias remove team --user alice
mailTo team
reached bob
refute inMailbox alice "$word"

step "renamed: the old name is refused, the new one delivers, nested as well"
expect postwell alias rename heads chiefs
refute send --to "heads@$DOMAIN"
expect contains "$out" "550 5.1.1"
mailTo chiefs
reached dave
mailTo team
reached dave

step "deleted: refused, and gone as a member"
expect postwell alias delete chiefs
refute send --to "chiefs@$DOMAIN"
mailTo team
reached bob
refute inMailbox dave "$word"

step "an alias named like its own user delivers to that user"
expect postwell alias add alice --user alice --user bob
mailTo alice
reached alice
reached bob

step "twenty aliases in a row, and a user who forwards at the end"
expect postwell alias add row20 --user carol
for ((i = 19; i >= 1; i--)); do expect postwell alias add "row$i" --alias "row$((i + 1))"; done
install -o dave -g dave -m 644 <(echo "bob@$DOMAIN") /var/services/homes/dave/.forward
expect postwell alias add row20 --user dave
mailTo row1
reached carol
reached bob
run postwell alias add row0 --alias row1
expect equal "$status" 2
expect contains "$err" "than Postfix follows"

step "names in other letters, twins but for a capital"
expect postwell alias add jörg --user carol
expect postwell alias add JÖRG --user bob
mailTo jörg
reached carol
refute inMailbox bob "$word"
mailTo JÖRG
reached bob
refute inMailbox carol "$word"

step "a percent sign or an exclamation mark sends nothing elsewhere"
for name in '50%off' 'a!b'; do
  run postwell alias add "$name" --user alice
  expect equal "$status" 2
  refute send --to "$name@$DOMAIN"
  expect contains "$out" "550 5.1.1"
done
# unlike that of strangers, mail from here may try; it goes round no other machine
word=$(token)
sendmail -C "$POSTFIX" -f alice 'nobody%outside.example' <<<"Subject: $word"
waitFor mailLogged "to=<nobody%outside.example@$DOMAIN>.*status=bounced"

step "postmaster always has an address"
expect send --to "postmaster@$DOMAIN"

step "what a stored row may try, the mail system does not do"
# the table as a program that checks nothing may leave it
expect python3 - "$P/etc/alias.db" <<'EOP'
import sqlite3, sys
db = sqlite3.connect(sys.argv[1])
db.executemany("insert into alias_info_table values ('evil', ?, ?)", [
    ("|touch /tmp/owned", 3), ("/tmp/owned", 3), (":include:/etc/passwd", 3),
    ("a\nroot: |touch /tmp/owned", 0), ("|touch /tmp/owned", 0), ("bob", 0)])
db.commit()
EOP
run "$SCRIPTS/DaemonConfSet.sh" alias
expect equal "$status" 0
expect equal "$(grep -c 'alias "evil"' <<<"$err")" 5
mailTo evil
reached bob
refute test -e /tmp/owned
