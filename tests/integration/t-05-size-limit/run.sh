#!/bin/bash
# The size limit counts in MB; 0 means none.
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
addUsers alice
startMail

# body BYTES: a message body of about that size.
body() { head -c "$1" /dev/zero | tr '\0' x | fold -w 70 >"$WORLD/body"; }

step "a limit of 1 MB"
expect postwell smtp set --size-limit 1 >/dev/null
expect equal "$(configured message_size_limit)" 1048576
body 1300000
refute send --to "alice@$DOMAIN" --body "@$WORLD/body"
expect contains "$out" "552 5.3.4"
body 900000
word=$(token)
expect send --to "alice@$DOMAIN" --header "X-Word: $word" --body "@$WORLD/body"
waitFor inMailbox alice "$word"

step "no limit"
expect postwell smtp set --size-limit 0 >/dev/null
body 12000000
word=$(token)
expect send --to "alice@$DOMAIN" --header "X-Word: $word" --body "@$WORLD/body"
waitFor inMailbox alice "$word"
