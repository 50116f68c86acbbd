#!/bin/bash
# The settings of the spam filter and its rule files, obeyed by the real SpamAssassin; and a
# spamd that is killed, slow or restarted, which costs no mail.
#
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
addUsers alice
addLan
rules=$P/etc/rules
active=$T/etc/spamassassin
gtube=(--body 'XJS*C4JDBQADN1.NSBN3*2IDNEN*GTUBE-STANDARD-ANTI-UBE-TEST-EMAIL*C.34X')
bargain=(--body 'the bargain of the century' --add-header 'X-Bargain: yes')

# judge SEND-OPTION...: a message to alice, which is then in $mail.
judge() {
  word=$(token)
  expect sendFromLan --to "alice@$DOMAIN" --h-Subject "about $word" "$@"
  waitFor inMailbox alice "$word"
  mail=$(mailFile alice "$word")
}

# header NAME: of that message, in one line.
header() {
  python3 -c 'import email, sys
with open(sys.argv[1], "rb") as mail:
    print(" ".join((email.message_from_binary_file(mail)[sys.argv[2]] or "").split()))' "$mail" "$1"
}
status() { header X-Spam-Status; }
configure() { expect "$SCRIPTS/DaemonConfSet.sh" spam; }

cat >"$rules/bargain.cf" <<'EOC'
body BARGAIN_BODY /bargain of the century/
score BARGAIN_BODY 10
header BARGAIN_HEADER X-Bargain =~ /yes/
score BARGAIN_HEADER 10
EOC
expect chmod 600 "$rules/bargain.cf"

step "spam has the tag before its subject, whatever the tag is made of; headers are all that changes"
setKey spam_enable_rewrite yes
setKey spam_rewrite_subject "[# 'junk' (*)] \\# \$(id) 50%"
setKey spam_report_machanism 0
setKey spam_auto_learn yes
setKey spam_learn_threshold_non_spam 4.00
startMail
startSpamFilter
expect "$SCRIPTS/DaemonConfSet.sh" smtp
judge "${gtube[@]}"
expect equal "$(header Subject)" "[# 'junk' (*)] \\# \$(id) 50% about $word"
refute contains "$(header Content-Type)" multipart
judge "${bargain[@]}"
expect equal "$(header Subject)" "about $word"

step "it learns what is below the one threshold, and nothing between them"
expect contains "$(status)" autolearn=ham
refute contains "$(status)" BARGAIN

step "a rule file that is switched on counts, and what is above the other threshold is learned"
expect cp "$rules/bargain.cf" "$active"
configure
judge "${bargain[@]}"
expect contains "$(status)" BARGAIN_HEADER
expect contains "$(status)" 'Yes, score='
expect contains "$(status)" autolearn=spam
expect contains "$(header Subject)" "'junk'"

step "switched off it counts no more; no tag, another report, nothing learned"
expect rm "$active/bargain.cf"
setKey spam_enable_rewrite no
setKey spam_report_machanism 2
setKey spam_auto_learn no
configure
judge "${bargain[@]}"
refute contains "$(status)" BARGAIN
refute contains "$(status)" autolearn=ham
judge "${gtube[@]}"
expect equal "$(header Subject)" "about $word"
expect grep -q '^Content-Type: text/plain; x-spam-type=original' "$mail"

step "the score from which it is spam; who has sent little spam so far is judged more kindly"
setKey spam_required_score 15.00
setKey spam_auto_whitelist yes
setKey spam_report_machanism 1
for number in {1..200}; do
  printf 'body MANY_%s /bargain of the century/\nscore MANY_%s 0.1\n' "$number" "$number" >"$active/many$number.cf"
done
configure

for _ in 1 2 3; do judge --from friend@elsewhere.example; done
refute contains "$(status)" MANY
judge "${bargain[@]}" --from stranger@elsewhere.example
expect contains "$(status)" 'Yes, score='
expect contains "$(status)" MANY_200
expect grep -q '^Content-Type: message/rfc822; x-spam-type=original' "$mail"
judge "${bargain[@]}" --from friend@elsewhere.example
expect contains "$(status)" 'No, score='
expect contains "$(status)" AWL
expect contains "$(status)" MANY_200
expect rm "$active"/many*.cf

step "a bad value leaves the old configuration in force, and is named"
before=$(<"$active/local.cf")
for bad in 'spam_rewrite_subject=a	b' "spam_rewrite_subject=$(printf '%0201d' 0)" spam_report_machanism=3 \
  spam_learn_threshold_spam=x 'spam_learn_threshold_non_spam=1 #'; do
  kept=$(<"$SETTINGS")
  setKey "${bad%%=*}" "${bad#*=}"
  refused "${bad%%=*} is \"" "$SCRIPTS/DaemonConfSet.sh" spam
  expect equal "$(<"$active/local.cf")" "$before"
  printf '%s\n' "$kept" >"$SETTINGS"
done

step "spamd killed: mail passes as it is, and is judged again when spamd is back"
killed /run/postwell/spamd/spamd.pid
refute "$SCRIPTS/SpamDaemon.sh" status
word=$(token)
expect sendFromLan --to "alice@$DOMAIN" --h-Subject "$word"
waitFor inMailbox alice "$word"
expect "$SCRIPTS/SpamDaemon.sh" start
marked spam "${gtube[@]}"

step "spamd slow: mail waits for it"
mapfile -t processes < <(pgrep '^spamd')
((${#processes[@]} > 1)) || die "no children of spamd"
expect kill -STOP "${processes[@]}"
(sleep 3 && kill -CONT "${processes[@]}") &
SECONDS=0
marked spam "${gtube[@]}"
((SECONDS >= 2)) || die "it was judged at once"

step "while spamd is restarted no mail is refused"
"$SCRIPTS/SpamDaemon.sh" restart >"$WORLD/said" 2>&1 &
restart=$!
while kill -0 "$restart" 2>/dev/null; do expect sendFromLan --to "alice@$DOMAIN" "${gtube[@]}"; done
expect wait "$restart"
marked spam "${gtube[@]}"

step "a reload or restart that is interrupted is carried out all the same"
masters() { pgrep -c -P 1 '^spamd'; }
changing() { pgrep -f 'spamd -d' || [[ $(masters) != 1 ]]; }
atRest() { flock -n /run/postwell/spam.lock true && "$SCRIPTS/SpamDaemon.sh" status && [[ $(masters) == 1 ]]; }
set -m  # each in a process group of its own
for verb in reload restart; do
  "$SCRIPTS/SpamDaemon.sh" "$verb" &
  waitFor changing >/dev/null
  expect kill -TERM -- "-$!"
  wait "$!"
  waitFor atRest
  marked spam "${gtube[@]}"
done
set +m

step "a second spamd, left by a reload that was killed, is stopped by the next"
leftOver() {
  local name=a
  if [[ $(readlink /run/postwell/spamd/spamd.pid) == a.pid ]]; then name=b; fi
  expect spamd -d -L -x -u debian-spamd --siteconfigpath="$active" -s /dev/null \
    -r "/run/postwell/spamd/$name.pid" --socketpath="/run/postwell/spamd/$name.sock"
  expect equal "$(masters)" 2
}
for verb in reload restart; do
  leftOver
  expect "$SCRIPTS/SpamDaemon.sh" "$verb"
  expect atRest
done
leftOver
killed /run/postwell/spamd/spamd.pid
expect "$SCRIPTS/SpamDaemon.sh" start
expect atRest

step "switched off, a configuration that is bad is told, and keeps nothing else from being set"
before=$(<"$active/local.cf")
echo 'no such option' >"$active/broken.cf"
refused 'in broken.cf (line 1): no such option' "$SCRIPTS/DaemonConfSet.sh" spam
setKey spam_enable no
setKey spam_required_score 7.00
run "$SCRIPTS/DaemonConfSet.sh" spam
expect equal "$status" 0
expect contains "$err" 'SpamAssassin refuses the configuration: config: failed to parse line'
expect contains "$err" 'the spam filter is off; it keeps its old configuration'
expect equal "$(<"$active/local.cf")" "$before"
expect equal "$(compgen -G "$active.new.*")" ""
expect "$SCRIPTS/SpamDaemon.sh" status
expect postwell spam set --enabled no >/dev/null
expect equal "$(pgrep -c '^spamd')" 0
expect mv /usr/bin/spamassassin "$WORLD"
expect postwell security set --dnsbl no >/dev/null
run postwell spam set --enabled yes
expect equal "$status" 1
expect contains "$err" 'SpamAssassin is not installed'
expect postwell spam set --enabled no >/dev/null
expect cp "$WORLD/spamassassin" /usr/bin
expect rm "$active/broken.cf"
expect postwell spam set --enabled yes >/dev/null
marked spam "${gtube[@]}"
expect contains "$(<"$active/local.cf")" 'required_score 7.00'
expect "$SCRIPTS/SpamDaemon.sh" stop
expect equal "$(pgrep -c '^spamd')" 0
