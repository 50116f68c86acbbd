#!/bin/bash
# MailLogDaemon.sh start|stop|restart|status
#
# The mail log: maillogd, which collects, and mailfeed, which reads Postfix's log.
#
#   start    both; returns when records can get from the one to the other. When the
#            feed fails, the collector stays
#   stop     the feed, then the collector; returns when both have ended, with all they
#            had taken in stored
#   restart  stop, then start
#   status   exit status 0 when both run, 3 when one does not
#
# The feed reads what strangers can write, so it runs as Postfix's user, who owns the
# log, and the collector's socket is open to that user's group. Every verb may be given
# at any time; what is already so is left so. Exit status 0; 1 with one line on stderr
# and in the system log; 2 for wrong arguments.

here=$(dirname "$(readlink -f "$0")")
# shellcheck source=common.sh
. "$here/common.sh"

collector=$RUN/maillogd.pid
feed=$RUN/mailfeed/mailfeed.pid

running() { daemonPid "$collector" maillogd >/dev/null && daemonPid "$feed" mailfeed >/dev/null; }

prepareFeed() {
  prepareFolders
  install -d -m 700 -o postfix -g postfix "$RUN/mailfeed" "$STATE/mailfeed" ||
    fail "cannot prepare the feed's folders under $RUN and $STATE"
}

collect() { startQuietly "$T/bin/maillogd" --background --pid-file "$collector" --group postfix; }

# A log that was damaged, or half made when the machine stopped, is made anew by a start
# that then fails; the next one works.
startCollector() {
  ! daemonPid "$collector" maillogd >/dev/null || return 0
  collect || collect || fail "the mail log's collector does not start: $(reason "$said")"
}

startFeed() {
  ! daemonPid "$feed" mailfeed >/dev/null || return 0
  startQuietly setpriv --reuid postfix --regid postfix --clear-groups \
    "$T/bin/mailfeed" --background --pid-file "$feed" ||
    fail "the mail log's feed does not start: $(reason "$said")"
}

start() {
  prepareFeed
  startCollector
  startFeed
}

stop() {
  stopDaemon "$feed" mailfeed
  stopDaemon "$collector" maillogd 150  # it may wait a minute for each of its two files
}

serviceVerb maillog "$@"
