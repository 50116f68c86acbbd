# shellcheck shell=bash
# What the scripts of the package share: the fixed places, the settings and the
# checks of their values, how a failure is told, and how a daemon is watched.
# Sourced by each of them, never run.
#
# A check of a setting ends the whole script when it does not hold, so it must
# not stand inside $(...), which would only end the subshell.
#
# shellcheck disable=SC2034  # the sourcing script uses what is set here

stage=  # the folder of stageIn
said=   # the output of startQuietly

P=/var/packages/Postwell
T=$P/target
SETTINGS=$P/etc/postwell.conf
BLOCKLISTS=$P/etc/spamlist.conf
DEFAULTS=$T/etc/postwell.conf.default  # what an absent key stands for
ADDITIONS=$P/etc/local                 # the administrator's own, never written
POSTFIX=$T/etc/postfix
POSTMAP=$T/etc/postmap                 # makes maps without the real main.cf
DOVECOT=$T/etc/dovecot
SPAM=$T/etc/spamassassin                # with the rule files that are switched on
SPAM_LISTS=$T/etc/spam/blackwhite.cf    # made by kest_spam_blackwhite
SPAM_USER=debian-spamd                  # judges mail
SPAM_CLIENT=spamass-milter              # shows it to him
VIRUS=$T/etc/clamav
VIRUS_SIGNATURES=/var/lib/clamav        # the machine's own, kept up to date by freshclam
VIRUS_USER=clamav                       # examines mail, and shows it to himself
TLS=$T/etc/ssl
HOMES=/var/services/homes               # of local accounts
QUEUE=$T/var/spool/postfix
STATE=$T/var/lib
LOGS=$T/var/log
RUN=/run/postwell
SPAMD_SOCKET=$RUN/spamd/spamd.sock
SPAM_MILTER=$RUN/spamass-milter/milter.sock
CLAMD_SOCKET=$RUN/clamav/clamd.sock
VIRUS_MILTER=$RUN/clamav-milter/milter.sock

export LC_ALL=C
export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
umask 022

# ---- Telling a failure -------------------------------------------------------

# fail TEXT: one line on stderr and in the system log, exit status 1.
fail() {
  local text="${0##*/}: ${1//[^[:print:]]/?}"
  printf '%s\n' "$text" >&2
  logger -p mail.err -t postwell -- "$text" 2>/dev/null  # stderr has it anyway
  exit 1
}

# usage TEXT: says on stderr what the script takes, exit status 2.
usage() {
  printf 'usage: %s %s\n' "${0##*/}" "$1" >&2
  exit 2
}

# reason TEXT: the line of a program's output that says what went wrong, without
# the date of a log line and the name of the folder that will be gone.
reason() {
  local lines logged='^[A-Z][a-z]{2} [ 0-9][0-9] [0-9:.]+ ([^ ]+ )?[^] ]*\[[0-9]+\]:? ((dbg|info|warn|error): )?'
  lines=$(grep -E 'fatal|panic|[Ee]rror|ERROR|Fatal' <<<"$1" | grep -v 'startup failed') || lines=$1
  [[ -z $stage ]] || lines=${lines//"$stage"\//}
  head -n 1 <<<"$lines" | sed -E "s/$logged//; s/^[A-Z][a-z]{2} [A-Z].* -> //"
}

# ---- Settings ----------------------------------------------------------------

declare -A settings

# A settings line is KEY="VALUE": blanks around the key do not count, the value
# stands between the first and the last double quote, the last line of a key
# wins. Everything else in the file is a comment.
readSettingsFile() {
  local line form='^[[:space:]]*([^="#[[:space:]]([^="]*[^="[:space:]])?)[[:space:]]*=[^"]*"(.*)"'
  while IFS= read -r line || [[ -n $line ]]; do
    if [[ $line =~ $form ]]; then settings[${BASH_REMATCH[1]}]=${BASH_REMATCH[3]}; fi
  done <"$1"
}

readSettings() {
  [[ -r $SETTINGS ]] || fail "cannot read $SETTINGS (if it is missing, copy $DEFAULTS there)"
  readSettingsFile "$DEFAULTS"
  readSettingsFile "$SETTINGS"
}

# enabled KEY: only the exact "yes" counts.
enabled() { [[ ${settings[$1]} == yes ]]; }

# refuse KEY EXPECTED: ends the script because of a setting's value.
refuse() { fail "$1 is \"${settings[$1]:0:80}\", expected $2"; }

# additionsIn FILE...: tells, in a message, which of the administrator's files hold any.
additionsIn() {
  local file names=()
  for file in "$@"; do
    if grep -qsE '^[^#[:space:]]' "$ADDITIONS/$file"; then names+=("$ADDITIONS/$file"); fi
  done
  ((${#names[@]} == 0)) || printf ' with the additions in %s' "${names[*]}"
}

# ---- Values that may stand in a daemon's configuration --------------------------

isHostName() {
  local label='[A-Za-z0-9]([A-Za-z0-9-]{0,61}[A-Za-z0-9])?'
  ((${#1} <= 253)) && [[ $1 =~ ^$label(\.$label)*$ && ! ${1##*.} =~ ^[0-9]+$ ]]
}

isAddress4() {
  local byte='(25[0-5]|2[0-4][0-9]|1[0-9][0-9]|[1-9]?[0-9])'
  [[ $1 =~ ^$byte(\.$byte){3}$ ]]
}

isAddress6() {
  local group='[0-9A-Fa-f]{1,4}' colons=${1//[^:]/}
  ((${#colons} <= 7)) &&
    [[ $1 =~ ^($group:){7}$group$ || $1 =~ ^($group(:$group)*)?::($group(:$group)*)?$ ]]
}

# expectNumber KEY FROM TO WHAT: leaves the setting without leading zeros; as
# everywhere in the package, an empty value is 0.
expectNumber() {
  local value=${settings[$1]:-0}
  { [[ $value =~ ^[0-9]{1,9}$ ]] && ((10#$value >= $2 && 10#$value <= $3)); } ||
    refuse "$1" "$4 from $2 to $3"
  settings[$1]=$((10#$value))
}

# expectScore KEY: as SpamAssassin takes it.
expectScore() {
  [[ ${settings[$1]} =~ ^-?[0-9]{1,4}(\.[0-9]{1,2})?$ ]] ||
    refuse "$1" "a number with two decimals at most"
}

# expectText KEY SIZE: one that may stand in a line, of so many bytes at most.
expectText() {
  { ((${#settings[$1]} <= $2)) && [[ ${settings[$1]} != *[[:cntrl:]]* ]]; } ||
    refuse "$1" "$2 bytes at most, and no control characters"
}

expectHostName() {
  isHostName "${settings[$1]}" || refuse "$1" "a host name"
}

expectHost() {
  isHostName "${settings[$1]}" || isAddress4 "${settings[$1]}" ||
    isAddress6 "${settings[$1]}" || refuse "$1" "a host name or address"
}

# The domain names of a list joined by ", ", one a line.
domainsOf() { grep . <<<"${settings[$1]//, /$'\n'}"; }

expectDomains() {
  local name
  while IFS= read -r name; do
    isHostName "$name" || refuse "$1" 'domain names joined by ", "'
  done < <(domainsOf "$1")
}

expectMailAddress() {
  local atom="[A-Za-z0-9.!#\$%&'*+/=?^_\`{|}~-]+"
  local address=${settings[$1]}
  [[ $address =~ ^$atom(@[^@]+)?$ ]] || refuse "$1" "a mail address"
  [[ $address != *@* ]] || isHostName "${address#*@}" || refuse "$1" "a mail address"
}

# The name under which this machine's mail server presents itself.
hostName() {
  if [[ -n ${settings[smtp_hostname]} ]]; then
    printf '%s\n' "${settings[smtp_hostname]}"
  else
    postconf -c "$POSTMAP" -h myhostname 2>/dev/null
  fi
}

# ---- Folders and files -----------------------------------------------------------

# What both daemons need before they can be configured. The owners matter:
# Postfix does not start, and does not say why, when "private" is not its own,
# and writes its log as its own user.
prepareFolders() {
  {
    install -d -m 755 "$RUN" "$RUN/dovecot" "$POSTFIX" "$DOVECOT" "$LOGS" "$STATE" \
      "$STATE/dovecot" "$QUEUE" &&
      install -d -m 700 -o postfix "$QUEUE/private" "$STATE/postfix" &&
      { [[ -e $LOGS/maillog ]] || install -m 640 /dev/null "$LOGS/maillog"; } &&
      chown postfix "$LOGS/maillog"
  } || fail "cannot prepare the folders under $T and $RUN"
}

# What the spam filter needs to be configured and to run.
prepareSpamFolders() {
  {
    install -d -m 755 "$RUN" "$SPAM" "${SPAM_LISTS%/*}" "$LOGS" "$STATE" &&
      install -d -m 755 -o root "$RUN/spamd" &&  # where root writes, nobody else may
      install -d -m 755 -o "$SPAM_USER" "$STATE/spamassassin" &&
      { [[ -e $LOGS/spamd.log ]] || install -m 640 -o "$SPAM_USER" /dev/null "$LOGS/spamd.log"; }
  } || fail "cannot prepare the folders of the spam filter under $T and $RUN"
}

# wholeLines FILE: its text, of which the last line has an end as well.
wholeLines() { awk 1 "$1"; }

# stageIn FOLDER: makes a folder beside it, on the same file system, that is gone
# when the script ends; its name is in $stage.
stageIn() {
  stage=$(mktemp -d "$1.new.XXXXXX") || fail "cannot write beside $1"
  trap 'rm -rf "$stage"' EXIT
}

# The certificate of both daemons, made when there is none yet.
ensureCertificate() {
  [[ ! -e $TLS/cert.pem || ! -e $TLS/key.pem ]] || return 0
  [[ ! -e $TLS/cert.pem && ! -e $TLS/key.pem ]] ||
    fail "$TLS holds only one of cert.pem and key.pem: add or remove the other"
  local name message
  name=$(hostName)
  isHostName "$name" || fail "the machine has no usable host name"
  install -d -m 755 "$TLS" || fail "cannot make $TLS"
  # A common name holds at most 64 characters; the alternative name has it all.
  message=$(umask 077 && openssl req -x509 -newkey rsa:2048 -nodes -days 3650 \
    -subj "/CN=${name:0:64}" -addext "subjectAltName=DNS:$name" \
    -keyout "$TLS/key.pem.new" -out "$TLS/cert.pem.new" 2>&1) ||
    fail "cannot make a certificate: $(tail -n 1 <<<"$message")"
  { chmod 644 "$TLS/cert.pem.new" && mv "$TLS/key.pem.new" "$TLS/key.pem" &&
    mv "$TLS/cert.pem.new" "$TLS/cert.pem"; } || fail "cannot write $TLS"
}

# needs PROGRAM NAME: ends the script when the daemon is not installed.
needs() { command -v "$1" >/dev/null || fail "$2 is not installed (there is no $1)"; }

# lock NAME: waits until no other script holds NAME and keeps it, to the end of
# the script or to unlock.
lock() {
  ((EUID == 0)) || fail "must be run as root"
  { install -d -m 755 "$RUN" && exec {lock_fd}>"$RUN/$1.lock" && flock "$lock_fd"; } ||
    fail "cannot lock $RUN/$1.lock"
}

unlock() { exec {lock_fd}>&-; }

# ---- Daemons -----------------------------------------------------------------------

# waitFor SECONDS COMMAND...: until COMMAND succeeds; fails when it never does.
waitFor() {
  local end=$((SECONDS + $1))
  shift
  until "$@"; do
    ((SECONDS <= end)) || return 1
    sleep 0.05
  done
}

# daemonPid FILE NAME: the process of a pid file, if it is alive and runs NAME.
daemonPid() {
  local pid
  [[ -f $1 ]] || return 1  # some lie in folders of others than root
  pid=$(awk 'NR == 1 { print $1 }' "$1" 2>/dev/null)
  [[ $pid =~ ^[0-9]+$ && $(cat "/proc/$pid/comm" 2>/dev/null) == "$2" ]] && echo "$pid"
}

# gone PID: no such process; -PID: no process of that group.
gone() { ! kill -0 -- "$1" 2>/dev/null; }

# stopDaemon FILE NAME [SECONDS]: ends it, which may take it so long, and its whole
# process group, because its children hold its ports as well. A child that still lets a
# client wait (for having guessed a password, say) is not waited for.
stopDaemon() {
  local pid
  pid=$(daemonPid "$1" "$2") || return 0
  kill -TERM "$pid" 2>/dev/null  # it may have ended by itself
  waitFor "${3:-20}" gone "$pid" && waitFor 2 gone "-$pid" && return
  kill -KILL -- "-$pid" 2>/dev/null
  waitFor 5 gone "-$pid" || fail "cannot stop $2 (process $pid)"
}

# listening PORT: something on this machine accepts connections there.
listening() { [[ -n $(ss -Hltn "sport = :$1") ]]; }

# toTheEnd ARGUMENT...: the script goes on in a session of its own, where no signal for its
# caller's process group ends it or a daemon that it is starting: half a change would leave
# a daemon that nobody knows.
toTheEnd() {
  local pid session
  read -r pid _ _ _ _ session _ </proc/self/stat
  [[ $pid == "$session" ]] || exec setsid --wait "$(readlink -f "$0")" "$@"
}

# serviceVerb NAME VERB: what a service script does with its argument, by its functions
# start, stop, running and, where the daemon can, reload; one at a time under the lock
# NAME. A start makes a configuration only while nothing runs: what makes it has a running
# daemon reload, which would wait for the same lock.
serviceVerb() {
  local name=$1 verbs='start|stop|restart|status'
  shift
  if declare -F reload >/dev/null; then verbs='start|stop|restart|reload|status'; fi
  [[ $# -eq 1 ]] || usage "$verbs"
  [[ $1 == status ]] || toTheEnd "$1"
  case $1 in
    start | stop)
      lock "$name"
      "$1"
      ;;
    restart)
      lock "$name"
      stop
      start
      ;;
    status) running || exit 3 ;;
    reload)
      [[ $verbs == *reload* ]] || usage "$verbs"
      if running; then lock "$name" && reload; fi
      ;;
    *) usage "$verbs" ;;
  esac
}

# startQuietly COMMAND...: runs what becomes a daemon so that it holds neither
# the caller's descriptors nor the lock. What it says is in $said.
startQuietly() {
  local status
  "$@" </dev/null >"$RUN/start.$$" 2>&1 {lock_fd}>&-
  status=$?
  said=$(<"$RUN/start.$$")
  rm -f "$RUN/start.$$"
  return "$status"
}
