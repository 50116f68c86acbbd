# shellcheck shell=bash
# Postfix's configuration. Sourced by DaemonConfSet.sh, which calls generate.
#
# main.cf expands "$" in every value, so what comes from the settings must have
# passed a check that lets none through; only the always-BCC address may hold
# one, and doubles it.
#
# A "%" or "!" in a name is a part of it and does not route mail to another machine.
# SMTPUTF8 is not offered, as Dovecot does not take such mail: it would bounce. Without
# it capitals are told from small letters as our own tables do, in ASCII alone; mail to
# names with other letters is delivered all the same.
#
# shellcheck disable=SC2153,SC2154  # common.sh sets what is read here

checkSettings() {
  [[ -z ${settings[smtp_hostname]} ]] || expectHostName smtp_hostname
  expectNumber smtp_port 1 65535 "a port"
  expectNumber message_limit 0 2047 "a size in MB"  # Postfix counts in a long
  expectDomains canonical_domain
  [[ -z ${settings[always_bcc]} ]] || expectMailAddress always_bcc
  if enabled smtp_ssl_enabled; then
    expectNumber smtps_port 1 65535 "a port"
    ((settings[smtps_port] != settings[smtp_port])) ||
      refuse smtps_port "another port than smtp_port"
  fi
  if enabled spam_dnsbl_enable; then readBlocklists; fi
  if enabled smtp_relay_enabled; then
    expectHost smtp_relay_server
    expectNumber smtp_relay_server_port 0 65535 "a port, or 0 for the default,"
  fi
}

# The networks whose clients need not authenticate: this machine alone, or also
# those that its interfaces belong to. An interface whose network is nearly the
# whole Internet must not make an open relay.
trustedNetworks() {
  local network widest
  if ! enabled smtp_ignore_lan_auth; then
    echo '127.0.0.0/8 [::1]/128'
    return
  fi
  # It warns that this folder holds no master.cf.
  for network in $(postconf -c "$POSTMAP" -o mynetworks_style=subnet -h mynetworks 2>/dev/null); do
    [[ $network == *:* ]] && widest=16 || widest=8
    if ((${network##*/} >= widest)); then printf '%s ' "$network"; fi
  done
}

# blocklistsOf SECTION: its names, one a line, each once, without what an editor of another
# system leaves behind. Like the library, it takes a header in any case and with blanks, and
# lets a section end at the next "[" that begins a line.
blocklistsOf() {
  awk -v section="$1" 'function trimmed(text) {
      gsub(/^[[:space:]]+|[[:space:]]+$/, "", text)
      return text
    }
    within && /^\[/ { exit }
    { name = trimmed($0) }
    within && name != "" && !known[tolower(name)]++ { print name }
    !within && name ~ /^\[.*\]$/ {
      within = tolower(trimmed(substr(name, 2, length(name) - 2))) == tolower(section)
    }' "$BLOCKLISTS"
}

# addBlocklists SECTION RESTRICTION
addBlocklists() {
  local name
  while IFS= read -r name; do
    isHostName "$name" || fail "$BLOCKLISTS: \"${name:0:80}\" is no host name"
    blocklists+=("$2 $name=127.0.0.[2..11]")
  done < <(blocklistsOf "$1")
}

# Only these answers say that a client or domain is listed. Others are the list's way to
# tell that it does not want to be asked, and must not refuse all mail.
readBlocklists() {
  [[ -r $BLOCKLISTS ]] || fail "cannot read $BLOCKLISTS"
  blocklists=()
  addBlocklists "RBL server" reject_rbl_client
  addBlocklists "RHSBL server" reject_rhsbl_sender
}

# relayHost: [HOST]:PORT, the brackets for "no MX lookup".
relayHost() {
  local port=${settings[smtp_relay_server_port]}
  echo "[${settings[smtp_relay_server]}]$( ((port)) && echo ":$port")"
}

writeRelay() {
  if ! enabled smtp_relay_enabled; then
    echo "smtp_tls_security_level = may"
    return
  fi
  echo "relayhost = $(relayHost)"
  if enabled smtp_relay_secure_conn; then
    echo "smtp_tls_security_level = encrypt"
    # On this port TLS begins with the first byte.
    ((settings[smtp_relay_server_port] != 465)) || echo "smtp_tls_wrappermode = yes"
  else
    echo "smtp_tls_security_level = may"
  fi
  enabled smtp_relay_auth_enabled || return 0
  cat <<EOC
smtp_sasl_auth_enable = yes
smtp_sasl_security_options = noanonymous
smtp_sasl_password_maps = lmdb:$POSTFIX/sasl_passwd
EOC
}

# Restrictions are lists to which a new kind of rule adds its own. An address such as
# user@[192.0.2.1] is refused: it may be that of an account here, for which no table has a
# key.
recipientRestrictions() {
  local list=() literal='regexp:{{/@\[[^@]*$$/ REJECT address literals are not accepted}}'
  if enabled restrict_sender; then list+=(reject_authenticated_sender_login_mismatch); fi
  list+=("check_client_access lmdb:$POSTFIX/access_client"
    "check_sender_access $literal" "check_sender_access lmdb:$POSTFIX/access_sender"
    "check_recipient_access $literal" "check_recipient_access lmdb:$POSTFIX/access_recipient"
    permit_mynetworks permit_sasl_authenticated)
  if enabled spam_dnsbl_enable; then list+=("${blocklists[@]}"); fi
  local IFS=,
  echo "${list[*]}"
}

# A mail that the virus scanner cannot examine must wait; one that the spam filter cannot
# judge is accepted.
virusMilter() {
  ! enabled anti_virus_enable || echo "{ unix:$VIRUS_MILTER, default_action=tempfail }"
}

spamMilter() {
  ! enabled spam_enable || echo "{ unix:$SPAM_MILTER, default_action=accept }"
}

# Where the library keeps a user's ".forward", by the kind of account.
forwardPath() {
  if [[ ${settings[account_type]:-local} == local ]]; then
    echo "$HOMES/\$user/.forward"
  else
    echo "\$home/.forward"
  fi
}

writeMainCf() {
  local domains auth=no limit=$((settings[message_limit] * 1048576))
  domains=$(domainsOf canonical_domain | sed 's/^/, /' | tr -d '\n')
  if enabled smtp_auth_enabled; then auth=yes; fi
  cat <<EOC
# Generated by DaemonConfSet.sh from $SETTINGS: changes
# here are lost. Your own belong into $ADDITIONS/postfix-main.cf.
compatibility_level = 3.6
queue_directory = $QUEUE
data_directory = $STATE/postfix
maillog_file = $LOGS/maillog
inet_interfaces = all
inet_protocols = all
mydestination = \$myhostname, localhost$domains
mynetworks = $(trustedNetworks)
recipient_delimiter = +
allow_percent_hack = no
swap_bangpath = no
smtputf8_enable = no
biff = no
append_dot_mydomain = no
enable_long_queue_ids = yes
message_size_limit = $limit
mailbox_size_limit = 0
alias_maps = lmdb:$POSTFIX/aliases
alias_database =
local_recipient_maps = proxy:unix:passwd.byname \$alias_maps
forward_path = $(forwardPath)
mailbox_transport = lmtp:unix:private/dovecot-lmtp
always_bcc = ${settings[always_bcc]//\$/\$\$}
sender_bcc_maps = lmdb:$POSTFIX/bcc_sender
recipient_bcc_maps = lmdb:$POSTFIX/bcc_recipient
smtpd_relay_restrictions = permit_mynetworks, permit_sasl_authenticated, reject_unauth_destination
smtpd_recipient_restrictions = $(recipientRestrictions)
smtpd_milters = $(virusMilter) $(spamMilter)
non_smtpd_milters = $(virusMilter)
smtpd_sasl_auth_enable = $auth
smtpd_sasl_type = dovecot
smtpd_sasl_path = private/auth
smtpd_sasl_security_options = noanonymous
smtpd_tls_security_level = may
smtpd_tls_cert_file = $TLS/cert.pem
smtpd_tls_key_file = $TLS/key.pem
EOC
  if [[ -n ${settings[smtp_hostname]} ]]; then echo "myhostname = ${settings[smtp_hostname]}"; fi
  if enabled restrict_sender; then echo "smtpd_sender_login_maps = lmdb:$POSTFIX/login_map"; fi
}

writeMasterCf() {
  cat <<EOC
# Generated by DaemonConfSet.sh: changes here are lost. Your own belong into
# $ADDITIONS/postfix-master.cf.
${settings[smtp_port]} inet n - n - - smtpd
EOC
  if enabled smtp_ssl_enabled; then
    cat <<EOC
${settings[smtps_port]} inet n - n - - smtpd
  -o syslog_name=postfix/smtps
  -o smtpd_tls_wrappermode=yes
EOC
  fi
  cat <<EOC
pickup unix n - n 60 1 pickup
cleanup unix n - n - 0 cleanup
qmgr unix n - n 300 1 qmgr
tlsmgr unix - - n 1000? 1 tlsmgr
rewrite unix - - n - - trivial-rewrite
bounce unix - - n - 0 bounce
defer unix - - n - 0 bounce
trace unix - - n - 0 bounce
verify unix - - n - 1 verify
flush unix n - n 1000? 0 flush
proxymap unix - - n - - proxymap
proxywrite unix - - n - 1 proxymap
smtp unix - - n - - smtp
relay unix - - n - - smtp
  -o syslog_name=postfix/relay
showq unix n - n - - showq
error unix - - n - - error
retry unix - - n - - error
discard unix - - n - - discard
local unix - n n - - local
virtual unix - n n - - virtual
lmtp unix - - n - - lmtp
anvil unix - - n - 1 anvil
scache unix - - n - 1 scache
postlog unix-dgram n - n - 1 postlogd
EOC
}

# The parameters of the administrator's main.cf, one a line: comments left out,
# continued lines joined.
additionalParameters() {
  awk '/^[[:space:]]*(#|$)/ { next }
       /^[[:space:]]/ && seen { sub(/^[[:space:]]+/, " "); printf "%s", $0; next }
       { printf "%s%s", (seen ? "\n" : ""), $0; seen = 1 }
       END { if (seen) print "" }' "$1"
}

# They replace what stands in the staged main.cf: a second line for the same
# parameter would make every Postfix program warn.
addOwnParameters() {
  local parameters message
  [[ -e $ADDITIONS/postfix-main.cf ]] || return 0
  mapfile -t parameters < <(additionalParameters "$ADDITIONS/postfix-main.cf")
  ((${#parameters[@]})) || return 0
  message=$(postconf -c "$stage" -e "${parameters[@]}" 2>&1) ||
    refuseStaged "$(reason "$message")"
}

addOwnServices() {
  [[ -e $ADDITIONS/postfix-master.cf ]] || return 0
  cat "$ADDITIONS/postfix-master.cf" >>"$stage/master.cf" || fail "cannot write $stage"
}

# The table with the relay's password, readable by root alone from the start.
writeRelayPassword() {
  local message
  enabled smtp_relay_enabled && enabled smtp_relay_auth_enabled || return 0
  message=$(umask 077 && { "$T/bin/kest_sasl_passwd" "$(relayHost)" >"$stage/sasl_passwd" &&
    postmap -c "$POSTMAP" "lmdb:$stage/sasl_passwd"; } 2>&1) ||
    fail "cannot write the relay's password table: $(reason "$message")"
}

# ensureMap TABLE PROGRAM: main.cf names the table, so there must be one.
ensureMap() {
  [[ -e $POSTFIX/$1.lmdb ]] || makeMap "$@"
}

# remakeMap TABLE PROGRAM: the table depends on settings. The old one is better than no
# configuration: when it cannot be made anew, that is only told.
remakeMap() {
  if [[ -e $POSTFIX/$1.lmdb ]]; then
    "$T/bin/$2" || echo "the rules in the table $1 do not follow the settings" >&2
  else
    makeMap "$@"
  fi
}

makeMap() {
  local message
  message=$("$T/bin/$2" 2>&1) || fail "cannot make the table $1: $(reason "$message")"
  # what had to be left out is no failure of this script
  [[ -z $message ]] || logger -p mail.warning -t postwell -- "$message" 2>/dev/null
}

# Postfix's programs wait while main.cf looks as if someone were still writing it.
settle() { touch -d '1 minute ago' "$1"/*.cf; }

refuseStaged() {
  fail "Postfix refuses the configuration$(additionsIn postfix-main.cf postfix-master.cf): $1"
}

# A copy whose programs log where the reason can be read: logTo FOLDER FILE
logTo() {
  { mkdir -p "$1" && cp "$stage"/*.cf "$1" && postconf -c "$1" -e maillog_file="$2" && settle "$1"; } ||
    fail "cannot write $1"
}

# The programs of master.cf that Postfix does not have.
missingPrograms() {
  local programs program
  programs=$(postconf -h -c "$stage" daemon_directory)
  for program in $(postconf -c "$stage" -M | awk '{ print $8 }' | sort -u); do
    [[ -x $programs/$program ]] || echo "$program"
  done
}

# Each tool knows a part of the rules, and not all of them say on stderr what is
# wrong: "postconf" knows the form of both files and the names, any program that
# reads a table the parameters common to all, "postfix check" the folders, and makes
# those of the real queue; smtpd, talking to nobody, its own parameters.
checkStaged() {
  local message
  settle "$stage"
  message=$( { postconf -c "$stage" -M && postconf -c "$stage" -x &&
    postmap -c "$stage" -q any static:any; } 2>&1 >/dev/null) || refuseStaged "$(reason "$message")"
  message=$(postconf -c "$stage" -n 2>&1 >/dev/null)
  [[ -z $message ]] || refuseStaged "$(reason "${message#*warning: }")"
  message=$(missingPrograms | head -n 1)
  [[ -z $message ]] || refuseStaged "there is no program $message"
  logTo "$stage/check" /dev/stdout
  message=$(postfix -c "$stage/check" check 2>&1) || refuseStaged "$(reason "$message")"
  checkServer "$stage/check" ||
    refuseStaged "the SMTP server does not start with it; the system log tells why"
}

# checkServer COPY: by itself, the program has no proxymap to ask and no entropy for TLS.
checkServer() {
  logTo "$1" ""
  { sed -i 's/proxy://g; /^smtpd_tls_security_level = may$/d' "$1/main.cf" && settle "$1"; } ||
    fail "cannot write $1"
  echo QUIT | MAIL_CONFIG=$1 timeout 10 "$(postconf -h -c "$1" daemon_directory)/smtpd" -S >/dev/null 2>&1
}

putInPlace() {
  local file files=(main.cf master.cf)
  if [[ -e $stage/sasl_passwd ]]; then
    files=(sasl_passwd sasl_passwd.lmdb "${files[@]}")
  fi
  for file in "${files[@]}"; do
    mv -f "$stage/$file" "$POSTFIX/$file" || fail "cannot put $POSTFIX/$file in place"
  done
  if [[ ${files[0]} != sasl_passwd ]]; then rm -f "$POSTFIX"/sasl_passwd{,.lmdb}; fi
}

# Postfix's set-group-id programs accept another configuration folder from an
# ordinary user only when the main.cf at the usual place names it.
announceFolder() {
  local known
  [[ -e /etc/postfix/main.cf ]] || install -D -m 644 /dev/null /etc/postfix/main.cf ||
    fail "cannot make /etc/postfix/main.cf"
  known=$(postconf -c /etc/postfix -h alternate_config_directories 2>/dev/null)
  [[ " ${known//,/ } " != *" $POSTFIX "* ]] || return 0
  postconf -c /etc/postfix -e "alternate_config_directories = $known${known:+, }$POSTFIX" 2>/dev/null ||
    fail "cannot write /etc/postfix/main.cf"
}

generate() {
  needs postconf Postfix
  checkSettings
  ensureCertificate
  stageIn "$POSTFIX"
  { { writeMainCf && writeRelay; } >"$stage/main.cf" && writeMasterCf >"$stage/master.cf"; } ||
    fail "cannot write $stage"
  addOwnParameters
  addOwnServices
  writeRelayPassword
  ensureMap aliases kest_alias_map
  # the last of the tables that each program makes
  remakeMap access_recipient kest_access_map
  ensureMap bcc_recipient kest_bcc_map
  if enabled restrict_sender; then ensureMap login_map kest_gen_login_map; fi
  checkStaged
  announceFolder
  putInPlace
}
