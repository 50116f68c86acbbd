#!/bin/bash
# A user's forwarding and vacation reply, by the real Postfix and Debian's vacation: each
# alone, together, and off. A sender is answered once; lists, programs and nobody are not.
# What goes wrong on the way neither bounces nor repeats the mail.
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
addUsers alice bob carol dave erin frank gus
startMail
home=/var/services/homes/alice

# personal OPTION...: sets it for alice, the text of a reply from standard input.
personal() { expect postwell personal set alice "$@" >/dev/null; }

# mail SENDER SEND-OPTION...: to alice; the message's word is then in $word.
mail() {
  local sender=$1
  shift
  word=$(token)
  expect send --from "$sender" --to "alice@$DOMAIN" --h-Subject "About $word" "$@"
}

# found USER TEXT: how many messages in the mailbox, as IMAP tells, hold it.
found() { fetch imap://127.0.0.1/INBOX "$1" --request "SEARCH TEXT \"$2\"" | tr -d '\r' | grep -oE ' [0-9]+' | wc -l; }
foundOnce() { [[ $(found "$1" "$2") == 1 ]]; }

# answered: who is recorded as having got a reply, which is done before the mail counts as
# delivered.
answered() { /usr/bin/vacation -l -f "$home/.vacation.db" | awk '{ print $1 }' | sort; }

# unanswered SENDER SEND-OPTION...: the mail arrives, and there is no reply.
unanswered() {
  local before
  before=$(answered)
  mail "$@"
  waitFor foundOnce alice "$word"
  waitFor settled
  expect equal "$(answered)" "$before"
}

step "forwarding alone: nothing stays here"
personal --forward "dave@$DOMAIN"
mail "bob@$DOMAIN"
waitFor foundOnce dave "$word"
waitFor settled
expect equal "$(found alice "$word")" 0

step "with a copy, and to an address elsewhere"
personal --keep-copy yes
mail "bob@$DOMAIN"
waitFor foundOnce dave "$word"
waitFor foundOnce alice "$word"
personal --forward friend@outside.example
mail "bob@$DOMAIN"
waitFor foundOnce alice "$word"
waitFor mailLogged "to=<friend@outside.example>, orig_to=<alice@$DOMAIN>"
personal --off
expect postsuper -c "$POSTFIX" -d ALL 2>/dev/null

step "a reply alone, fetched by its reader; the same mail stays here"
away=$(token)
personal --reply-subject "Away $away" --reply-file - <<'EOT'
Note: I am back on Monday.

. is not the end, and neither is
.
You wrote: $SUBJECT
EOT
mail "bob@$DOMAIN" --h-To "team@elsewhere.example"
waitFor foundOnce alice "$word"
waitFor foundOnce bob "$away"
reply=$(fetch 'imap://127.0.0.1/INBOX;MAILINDEX=1' bob | tr -d '\r')
header=${reply%%$'\n\n'*}
for line in "Return-Path: <>" "From: alice@$DOMAIN" "To: bob@$DOMAIN" "Subject: Away $away" \
  "Auto-Submitted: auto-replied" "Content-Type: text/plain; charset=UTF-8"; do
  expect grep -qxF "$line" <<<"$header"
done
expect equal "${reply#*$'\n\n'}" "Note: I am back on Monday.

. is not the end, and neither is
. 
You wrote: About $word"
expect equal "$(stat -c %U:%a "$home/.vacation.db")" alice:600

step "the second mail gets none, nor do ten at once more than one"
mail "bob@$DOMAIN"
for i in {1..10}; do
  send --from "carol@$DOMAIN" --to "alice@$DOMAIN" >/dev/null &
  sent[i]=$!
done
wait "${sent[@]}"
waitFor settled
mail "erin@$DOMAIN" # so that an earlier reply would have come
waitFor foundOnce erin "$away"
waitFor foundOnce carol "$away"
waitFor settled
expect foundOnce bob "$away"
expect foundOnce carol "$away"

step "a mail waits while another is being answered"
exec {answering}<"$home/.vacation.msg"
expect flock "$answering"
before=$(answered)
mail "frank@$DOMAIN"
waitFor pgrep -x flock >/dev/null
expect equal "$(answered)" "$before"
exec {answering}<&-
waitFor foundOnce frank "$away"

step "no reply to lists, programs, spam and nobody"
unanswered list@lists.example --h-List-Id '<list.lists.example>'
unanswered ann@lists.example --add-header $'List-Post:\n <mailto:list@lists.example>'
unanswered owner-list@lists.example
unanswered list-bounces+alice@lists.example
unanswered bulk@elsewhere.example --h-Precedence bulk
unanswered junk@elsewhere.example --add-header $'PRECEDENCE:\n\tJunk'
unanswered robot@elsewhere.example --h-Auto-Submitted auto-generated
unanswered spam@elsewhere.example --h-X-Spam-Flag YES
unanswered postmaster@elsewhere.example
unanswered '<>'
expect equal "$(answered)" "$(printf '%s\n' {bob,carol,erin,frank}@"$DOMAIN")"

step "what a stranger writes starts nothing and breaks nothing"
# shellcheck disable=SC2016  # not to be expanded here
hostile='$(touch /tmp/owned) `touch /tmp/owned` |touch /tmp/owned; "'\''\ $SUBJECT %s'
mail "gus@$DOMAIN" --h-Subject "$hostile"
waitFor foundOnce gus "$away"
expect inMailbox gus "You wrote: \$(touch /tmp/owned) "
for sender in "\"|touch /tmp/owned\"@$DOMAIN" "\"/tmp/owned\"@$DOMAIN" \
  "\"> carol@$DOMAIN\"@elsewhere.example" "\$(touch /tmp/owned)@$DOMAIN" "'x@$DOMAIN"; do
  mail "$sender"
  waitFor foundOnce alice "$word"
done
mail "dave@$DOMAIN" --add-header "X-Long: $(head -c 90000 /dev/zero | tr '\0' x)" \
  --add-header $'Subject: second\n folded \x01\x1b\xff' --body "@$BUILD/CMakeCache.txt"
waitFor foundOnce dave "$away"
waitFor settled
refute test -e /tmp/owned

step "mail to an alias is answered as well; a change makes all answered anew"
expect postwell alias add team --user alice >/dev/null
again=$(token)
personal --reply-subject "Zurück über Ostern und auch noch danach $again"
expect send --from "bob@$DOMAIN" --to "team@$DOMAIN"
waitFor foundOnce bob "Zurück über Ostern und auch noch danach $again"
expect equal "$(found bob 'Note: I am back')" 2

step "all three at once"
personal --forward "dave@$DOMAIN" --keep-copy yes
mail "carol@$DOMAIN"
waitFor foundOnce alice "$word"
waitFor foundOnce dave "$word"
waitFor foundOnce carol "$again"

# delivered: alice's mail is here and at dave's, each once, and nothing came back to bob.
delivered() {
  mail "bob@$DOMAIN"
  waitFor foundOnce alice "$word"
  waitFor foundOnce dave "$word"
  waitFor settled
  expect foundOnce alice "$word"
  expect equal "$(found bob "$word")" 0
}

step "a reply that cannot be made neither bounces nor repeats the mail"
expect install -o alice -m 600 "$BUILD/CMakeCache.txt" "$home/.vacation.db"
delivered
waitFor logged "Debian's vacation does not answer for alice"
expect rm "$home/.vacation.msg"
delivered
waitFor logged "cannot read $home/.vacation.msg"
run setpriv --reuid alice --regid alice --clear-groups "$T/bin/vacation" alice nobody <<<""
expect equal "$status" 0

step "a user sees and changes only what is his own"
asAlice() { run setpriv --reuid alice --regid alice --clear-groups env HOME="$home" postwell personal "$@"; }
asAlice show bob
expect equal "$status" 1
expect contains "$err" 'only root may'
asAlice set alice --off
expect equal "$status" 0
asAlice show alice
expect contains "$out" 'forward           (none)'

step "off: mail stays here, and nobody is answered"
expect equal "$(find "$home" -maxdepth 1 -name '.vacation*' -o -maxdepth 1 -name .forward)" ""
mail "erin@$DOMAIN"
waitFor foundOnce alice "$word"
waitFor settled
expect equal "$(found dave "$word")" 0
expect foundOnce erin "$away"
expect equal "$(found erin "$again")" 0

step "accounts of a directory and a domain: the .forward in the home that they name"
expect mkdir /var/lib/homes
expect useradd -m -d /var/lib/homes/gina gina
for name in gina@corp.example 'CORP\gina'; do
  echo "$name:x:$(id -u gina):$(id -g gina)::/var/lib/homes/gina:/bin/sh" >>/etc/passwd
  [[ $name == *@* ]] && type=ldap || type=win
  expect postwell smtp set --account-type "$type" >/dev/null
  waitFor portOpen 25
  expect postwell personal set "$name" --forward "dave@$DOMAIN" --keep-copy yes \
    --reply-subject "Away in $type $away" --reply-file - <<<"Soon." >/dev/null
  word=$(token)
  expect send --from "bob@$DOMAIN" --to "gina@$DOMAIN" --h-Subject "$word"
  waitFor foundOnce dave "$word"
  waitFor foundOnce bob "Away in $type $away"
  expect grep -qr "$word" /var/lib/homes/gina/Maildir/new
  expect postwell personal set "$name" --off >/dev/null
done
