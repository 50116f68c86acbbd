# shellcheck shell=bash
# What the scenarios share. Sourced inside a world (see there), as root.
#
# A scenario is a straight line of steps; the first expectation that does not
# hold ends it with a message and exit status 1.
#
# shellcheck disable=SC2034  # the scenarios use what is set here

P=/var/packages/Postwell
T=$P/target
SETTINGS=$P/etc/postwell.conf
ADDITIONS=$P/etc/local
POSTFIX=$T/etc/postfix
MAILLOG=$T/var/log/maillog
SCRIPTS=$T/scripts
DOMAIN=mail.example  # the server's name in the scenarios
LAN=10.20.30.1       # an address of this machine that is not a loopback one

[[ -n ${WORLD:-} ]] || {
  echo "run this by tests/integration/world" >&2
  exit 125
}

step() { echo "== $*"; }

die() {
  echo "FAILED at line ${BASH_LINENO[-2]}: $*"
  exit 1
}

# expect COMMAND...: it must succeed. refute COMMAND...: it must fail.
expect() { "$@" || die "expected: $*"; }
refute() { if "$@"; then die "not expected: $*"; fi; }

# waitFor COMMAND...: until it succeeds; the end of the scenario when it does not
# within 20 seconds.
waitFor() {
  local end=$((SECONDS + 20))
  until "$@" 2>/dev/null; do
    ((SECONDS < end)) || die "waited in vain: $*"
    sleep 0.05
  done
}

# run COMMAND...: its exit status is then in $status, its output in $out, what it
# says on stderr in $err.
run() {
  "$@" >"$WORLD/out" 2>"$WORLD/err"
  status=$?
  out=$(<"$WORLD/out")
  err=$(<"$WORLD/err")
}

contains() { [[ $1 == *"$2"* ]]; }
gone() { ! kill -0 "$1"; }

# killed PIDFILE: the process named there is killed, and has ended.
killed() {
  local pid
  pid=$(<"$1")
  expect kill -KILL "$pid"
  waitFor gone "$pid"
}

# equal GOT EXPECTED
equal() { [[ $1 == "$2" ]] || { diff <(echo "got: $1") <(echo "expected: $2") && false; }; }

# ---- The machine ---------------------------------------------------------------

# Each user's password is "pw-" and the name.
addUsers() {
  local user
  mkdir -p /var/services/homes
  for user in "$@"; do
    expect useradd -m -d "/var/services/homes/$user" "$user"
    expect chpasswd <<<"$user:pw-$user"
  done
}

# A network that this machine belongs to. What comes from its address is to the
# mail server a client outside this machine. On lo, as not every kernel has dummy
# interfaces.
addLan() { expect ip addr add "$LAN/24" dev lo; }

portOpen() { [[ -n $(ss -Hltn "sport = :$1") ]]; }

# openPorts: the mail ports that accept connections, in ascending order.
openPorts() {
  ss -Hltn | awk '{ sub(/.*:/, "", $4); print $4 }' | sort -nu |
    grep -Ex '25|110|143|465|587|993|995|25[0-9][0-9]' | tr '\n' ' ' | sed 's/ $//'
}

# ---- Settings ---------------------------------------------------------------------

# setKey KEY VALUE: into the settings file, whatever the value.
setKey() {
  grep -v "^$1=" "$SETTINGS" >"$WORLD/settings" || die "cannot read the settings"
  printf '%s="%s"\n' "$1" "$2" >>"$WORLD/settings"
  expect cp "$WORLD/settings" "$SETTINGS"
}

# The daemons as most scenarios want them: SMTP under our name, and IMAP.
startMail() {
  expect postwell smtp set --enabled yes --hostname "$DOMAIN" >/dev/null
  expect postwell protocol set --imap yes >/dev/null
}

configured() { postconf -c "$POSTFIX" -h "$1"; }

# ---- Mail -------------------------------------------------------------------------

# send [SWAKS-OPTION]...: what the server said is in $out. Exit status swaks's: 0
# accepted, 24 recipient refused, 26 message refused, 28 no authentication ...
send() {
  run swaks --server 127.0.0.1 --from sender@elsewhere.example "$@"
  return "$status"
}

# The same as a client outside this machine.
sendFromLan() { send --server "$LAN" --local-interface "$LAN" "$@"; }

# fetch URL USER [CURL-OPTION]...: a message or a listing, by a mail protocol.
fetch() {
  local url=$1 user=$2
  shift 2
  curl --silent --insecure --max-time 10 --user "$user:pw-$user" "$@" "$url"
}

inMailbox() { grep -qr -- "$2" "/var/services/homes/$1/Maildir/new" "/var/services/homes/$1/Maildir/cur"; }

# mailFile USER TEXT: the message that holds it.
mailFile() { grep -rl -- "$2" "/var/services/homes/$1/Maildir/new" "/var/services/homes/$1/Maildir/cur" | head -n 1; }

# settled: all mail has gone where it goes.
settled() { [[ $(postqueue -c "$POSTFIX" -p) == *'queue is empty'* ]]; }

# token: a word that no other message has.
token() { tr -d - </proc/sys/kernel/random/uuid; }

# ---- Logs --------------------------------------------------------------------------

mailLogged() { grep -qE -- "$1" "$MAILLOG"; }
logged() { grep -qF -- "$1" "$SYSLOG"; }

# refused TEXT COMMAND...: it fails with exit status 1 and one line on stderr,
# which holds TEXT and stands in the system log at mail.err (2*8+3) as well.
refused() {
  local text=$1
  shift
  run "$@"
  equal "$status" 1 || die "exit status of: $*"
  equal "$(wc -l <"$WORLD/err")" 1 || die "lines on stderr: $err"
  contains "$err" "$text" || die "the message is: $err"
  waitFor logged "postwell: $err"
  expect grep -qE "^<19>.*postwell: " <(grep -F -- "$err" "$SYSLOG")
}

# ---- The mail log --------------------------------------------------------------------

mailLogHas() { (($(mailLogRows rowid | wc -l) >= $1)); }

# mailLogRows COLUMNS: those of all rows of the mail log that is being written, in the
# order in which they were, blanks between them.
mailLogRows() { sqlRows "$T/etc/maillog/maillog.db" "SELECT $1 FROM mail_log_table ORDER BY rowid"; }

# logAsked OPTION...: the entries that the command line tool finds, sorted and in the
# form of t-17-mail-log-feed/rule, but without queue ids.
logAsked() {
  postwell log list --limit -1 --json "$@" | python3 -c 'import json, sys
for e in json.load(sys.stdin):
    print(e["status"], "<%s>" % e["from"], "<%s>" % e["to"], e["size"], e["message_id"])' | sort
}

# sqlRows FILE QUERY
sqlRows() {
  python3 - "$1" "$2" <<'EOP'
import sqlite3, sys
db = sqlite3.connect(f"file:{sys.argv[1]}?mode=ro", uri=True, timeout=10)
for row in db.execute(sys.argv[2]):
    print(*row)
EOP
}

# ---- The spam filter ------------------------------------------------------------------

startSpamFilter() {
  setKey spam_enable yes
  expect "$SCRIPTS/DaemonConfSet.sh" spam
  expect "$SCRIPTS/SpamDaemon.sh" start
  expect "$SCRIPTS/MailScanner.sh" start
}

# marked spam|ham SEND-OPTION...: a message to alice is marked so by the spam filter.
marked() {
  local expected=$1 word file mark=ham
  shift
  word=$(token)
  expect sendFromLan --to "alice@$DOMAIN" --h-Subject "$word" "$@"
  waitFor inMailbox alice "$word"
  file=$(mailFile alice "$word")
  expect grep -q '^X-Spam-Checker-Version:' "$file"  # it was looked at
  if grep -qx 'X-Spam-Flag: YES' "$file"; then mark=spam; fi
  [[ $mark == "$expected" ]] || die "this mail is $mark: $*"
}

# ---- The virus scanner -----------------------------------------------------------------

# The test file that every scanner knows; in two parts, so that none takes this file for it.
EICAR='X5O!P%@AP[4\PZX54(P^)7CC)7}'
EICAR+="\$EICAR-STANDARD-ANTIVIRUS-TEST-FILE!\$H+H*"

# Signatures of nothing but that, wherever it stands in a file.
addSignatures() {
  printf 'Eicar-Test-Signature:0:*:%s\n' "$(printf %s "$EICAR" | od -An -tx1 | tr -d ' \n')" \
    >/var/lib/clamav/local.ndb || die "cannot write the signatures"
}

# ---- Names ------------------------------------------------------------------------------

ZONE=$WORLD/zone

# A name server that knows what stands in $ZONE, in the form of toy-dns; its process is in
# $names.
startNames() {
  : >"$ZONE"
  "$(dirname "${BASH_SOURCE[0]}")/toy-dns" "$ZONE" &
  names=$!
  waitFor namesServed
}

namesServed() { [[ -n $(ss -Hlun 'sport = :53') ]]; }

# asked NAME...: somebody has asked for each of these.
asked() {
  local name
  for name in "$@"; do grep -qxF "$name" "$ZONE.asked" || return; done
}
