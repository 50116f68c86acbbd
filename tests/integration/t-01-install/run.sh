#!/bin/bash
# Installing puts down every file that a first load needs, keeps what exists, and
# the checker finds what was changed afterwards.
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"

step "a fresh machine has all defaults"
expect diff "$SETTINGS" "$T/etc/postwell.conf.default"
expect equal "$(wc -l <"$SETTINGS")" 37
for line in 'smtp_port="25"' 'smtp_auth_enabled="yes"' 'spam_report_machanism="1"' \
  'spam_rewrite_subject="*****SPAM*****"' 'spam_learn_threshold_non_spam="0.10"' 'always_bcc=""'; do
  expect grep -qxF "$line" "$SETTINGS"
done
expect equal "$(<"$P/etc/spamlist.conf")" $'[RBL server]\n[RHSBL server]'
expect grep -qxF 'dst.ports="465/tcp"' /usr/local/etc/services.d/postwell_port
expect postwell smtp show --json >/dev/null
expect equal "$(readlink /usr/local/bin/postwell)" "$T/bin/postwell"

step "a second installation keeps settings and replaces scripts"
setKey smtp_hostname kept.example
echo '# mine' >>"$ADDITIONS/postfix-main.cf"
echo '# broken' >"$SCRIPTS/common.sh"
expect cmake --install "$BUILD" >/dev/null
expect grep -qxF 'smtp_hostname="kept.example"' "$SETTINGS"
expect grep -qxF '# mine' "$ADDITIONS/postfix-main.cf"
refute grep -qxF '# broken' "$SCRIPTS/common.sh"

step "the checker is content, then names each deviation"
run "$SCRIPTS/check-install.sh"
expect equal "$status:$out$err" "0:"
chmod 600 "$SCRIPTS/DaemonConfSet.sh"
chown daemon "$P/etc/spamlist.conf"
rm "$T/bin/kest_gen_login_map"
ln -sfn /bin/true /usr/local/bin/postwell
rm "$T/etc/postmap/main.cf" && mkdir "$T/etc/postmap/main.cf"
run "$SCRIPTS/check-install.sh"
expect equal "$status" 1
expect contains "$out" "DaemonConfSet.sh: mode is 0600, expected 0755"
expect contains "$out" "spamlist.conf: owner is daemon, expected root"
expect contains "$out" "kest_gen_login_map: missing"
expect contains "$out" "postwell: target is /bin/true, expected $T/bin/postwell"
expect contains "$out" "postmap/main.cf: type is directory, expected regular file"
expect equal "$(wc -l <<<"$out")" 6  # the folder's mode is another as well

step "an ordinary user installs into a folder of his own"
expect install -d -o nobody "$WORLD/stage"
expect setpriv --reuid nobody --clear-groups env DESTDIR="$WORLD/stage" \
  "$(sed -n 's/.*COMMAND "\(.*install-files.sh\)".*/\1/p' "$BUILD/package/cmake_install.cmake")"
expect equal "$(stat -c '%U %a' "$WORLD/stage$SCRIPTS/PostfixDaemon.sh")" "nobody 755"
expect test -L "$WORLD/stage/usr/local/bin/postwell"
