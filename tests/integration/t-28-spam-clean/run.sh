#!/bin/bash
# What has been in a user's folder for spam for longer than the settings allow is deleted,
# and nothing else.
#
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
addUsers alice bob carol  # carol has no such folder
# lets Dovecot's programs see the other time
echo "import_environment = \$import_environment LD_PRELOAD FAKETIME NO_FAKE_STAT FAKETIME_SHARED" \
  >"$ADDITIONS/dovecot.conf" || die "cannot write the additions"
startMail

# keep USER FOLDER WORD: puts a message there.
keep() { doveadm -c "$T/etc/dovecot/dovecot.conf" save -u "$1" -m "$2" <<<"Subject: $3"$'\n'; }
# subjects USER FOLDER: of what is there, in one line.
subjects() {
  doveadm -c "$T/etc/dovecot/dovecot.conf" -f flow fetch -u "$1" hdr.subject mailbox "$2" ALL |
    sed 's/^hdr.subject=//' | tr '\n' ' '
}
# daysLater DAYS COMMAND...: as it is so many days from now, to the clock but not to files.
daysLater() {
  local days=$1
  shift
  NO_FAKE_STAT=1 faketime "+$days days" "$@"
}
cleanedAfter() { expect daysLater "$1" "$SCRIPTS/SpamClean.sh"; }

for user in alice bob; do
  expect doveadm -c "$T/etc/dovecot/dovecot.conf" mailbox create -u "$user" Junk Other
  expect keep "$user" Junk spam
  expect keep "$user" Other other
  expect keep "$user" INBOX mail
done
expect equal "$(subjects alice Junk)" 'spam '

step "the folder is the one that mail programs take for spam"
expect grep -q '\\Junk.*Junk' <<<"$(fetch imap://127.0.0.1 alice --request 'LIST (SPECIAL-USE) "" "*"')"

step "nothing is deleted while the filter is off, when the days are 0, or before they have passed"
cleanedAfter 40
setKey spam_enable yes
setKey spam_clean_interval 0
cleanedAfter 40
setKey spam_clean_interval 30
cleanedAfter 29
cleanedAfter 0
expect equal "$(subjects alice Junk)$(subjects bob Junk)" 'spam spam '

step "after the days it is, and who has no such folder is no failure"
cleanedAfter 31
for user in alice bob; do
  expect equal "$(subjects "$user" Junk)" ''
  expect equal "$(subjects "$user" Other)$(subjects "$user" INBOX)" 'other mail '
done
refute test -e /var/services/homes/carol/Maildir/.Junk

step "the system's cron runs it"
expect keep alice Junk spam
expect daysLater 31 run-parts --regex '^postwell$' /etc/cron.daily
expect equal "$(subjects alice Junk)" ''

step "bad days are refused"
for days in -1 x 10000; do
  setKey spam_clean_interval "$days"
  refused "spam_clean_interval is \"$days\"" "$SCRIPTS/SpamClean.sh"
done
setKey spam_clean_interval 30

step "a folder that cannot be cleaned keeps no other from it"
expect chown root /var/services/homes/alice/Maildir/.Junk/{.,cur,new,tmp}
expect keep bob Junk spam
run daysLater 31 "$SCRIPTS/SpamClean.sh"
expect equal "$status" 1
expect contains "$err" 'cannot clean a folder for spam: doveadm(alice): '
expect equal "$(subjects bob Junk)" ''

step "a program that reads what is not meant for it hides no user"
expect chown -R alice /var/services/homes/alice/Maildir/.Junk
expect keep alice Junk spam
expect keep bob Junk spam
printf '#!/bin/sh\ncat >/dev/null\nexec /usr/bin/doveadm "$@"\n' >/usr/local/sbin/doveadm
expect chmod 755 /usr/local/sbin/doveadm
cleanedAfter 31
expect rm /usr/local/sbin/doveadm
expect equal "$(subjects alice Junk)$(subjects bob Junk)" ''

step "arguments are wrong"
run "$SCRIPTS/SpamClean.sh" now
expect equal "$status" 2
expect contains "$err" 'usage: SpamClean.sh (takes no arguments)'

step "without Dovecot nothing is done"
expect "$SCRIPTS/DovecotDaemon.sh" stop
cleanedAfter 31
