#!/bin/bash
# SpamDaemon.sh start|stop|restart|reload|status
#
# SpamAssassin's daemon spamd, which judges the mail that MailScanner.sh's milter shows it.
#
#   start    unless the spam filter is off in the settings; makes a missing
#            configuration; returns when spamd takes mail
#   stop     returns when all its processes have ended
#   restart  stop, then start: with the filter off it stays stopped
#   reload   unless the spam filter is off in the settings, makes a running spamd, or one
#            that is being started, read its configuration again, without a moment in
#            which none is there: a second one starts, takes the place of the first, and
#            only then the first is stopped
#   status   exit status 0 when it runs, 3 when it does not
#
# Every verb may be given at any time; what is already so is left so. Exit
# status 0; 1 with one line on stderr and in the system log; 2 for wrong
# arguments.

here=$(dirname "$(readlink -f "$0")")
# shellcheck source=common.sh
. "$here/common.sh"

# Two spamds take turns, each with a pid file and a socket of its own; these are links to
# those of the one in service.
pidFile=$RUN/spamd/spamd.pid

# There since "reload" was asked for, whether or not one runs: a spamd that was just being
# started may have read the configuration from before.
asked=$RUN/spam.reload

running() { daemonPid "$pidFile" spamd >/dev/null; }

inService() { basename "$(readlink "$pidFile")" .pid; }

# takePlace NAME: from now on this one is in service.
takePlace() {
  local link
  for link in "$pidFile" "$SPAMD_SOCKET"; do
    { ln -sfn "$1.${link##*.}" "$link.new" && mv -T "$link.new" "$link"; } ||
      fail "cannot write $RUN/spamd"
  done
}

# launch NAME: a spamd that takes mail, or the end of the script.
launch() {
  local own=$RUN/spamd/$1 options=()
  rm -f "$asked"
  enabled spam_dnsbl_enable || options=(-L)  # asks nobody in the network
  rm -f "$own.pid" "$own.sock"
  startQuietly spamd -d -x -u "$SPAM_USER" --siteconfigpath="$SPAM" \
    -H "$STATE/spamassassin" --min-children=1 --max-children=2 -r "$own.pid" -s "$LOGS/spamd.log" \
    --socketpath="$own.sock" --socketgroup="$SPAM_CLIENT" --socketmode=0660 "${options[@]}" ||
    fail "the spam filter does not start: $(reason "$said")"
  waitFor 10 daemonPid "$own.pid" spamd >/dev/null || fail "the spam filter has ended again"
}

start() {
  readSettings
  if ! enabled spam_enable; then
    stop
    return
  fi
  needs spamd SpamAssassin
  if running; then return; fi
  [[ -e $SPAM/local.cf && -e $SPAM_LISTS ]] || "$here/DaemonConfSet.sh" spam || exit 1
  prepareSpamFolders
  stop  # what a reload that was killed has left
  launch a
  takePlace a
  [[ ! -e $asked ]] || reload
}

stop() {
  local name
  for name in a b; do stopDaemon "$RUN/spamd/$name.pid" spamd; done
}

reload() {
  local old new=a
  running || return 0
  readSettings
  enabled spam_enable || return 0  # it will be stopped
  prepareSpamFolders
  old=$(inService)
  if [[ $old == a ]]; then new=b; fi
  stopDaemon "$RUN/spamd/$new.pid" spamd  # left by a reload that was killed
  launch "$new"
  takePlace "$new"
  stopDaemon "$RUN/spamd/$old.pid" spamd
}

if [[ $* == reload && $EUID -eq 0 && -d $RUN ]]; then : >"$asked" || fail "cannot write $asked"; fi
serviceVerb spam "$@"
