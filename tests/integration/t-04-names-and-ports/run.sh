#!/bin/bash
# Host name, SMTP port, SMTPS with a certificate made on first use.
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
addUsers alice

greeting() { send --server "$1" --quit-after CONNECT "${@:2}" && grep -E '^<[-~ ] +220' <<<"$out"; }

step "without a name the machine's own is used"
expect postwell smtp set --enabled yes >/dev/null
expect contains "$(greeting 127.0.0.1)" "220 mail.localdomain ESMTP"
expect contains "$(openssl x509 -in "$T/etc/ssl/cert.pem" -noout -ext subjectAltName)" \
  "DNS:mail.localdomain"

step "the name in the greeting follows the setting, the certificate is kept"
before=$(sha256sum "$T/etc/ssl/cert.pem")
expect postwell smtp set --hostname mx.mail.example >/dev/null
expect contains "$(greeting 127.0.0.1)" "220 mx.mail.example ESMTP"
expect equal "$(sha256sum "$T/etc/ssl/cert.pem")" "$before"

step "a certificate for the host name, its key for root alone"
rm "$T/etc/ssl/cert.pem" "$T/etc/ssl/key.pem"
expect "$SCRIPTS/DaemonConfSet.sh" smtp
expect contains "$(openssl x509 -in "$T/etc/ssl/cert.pem" -noout -subject)" "CN = mx.mail.example"
expect contains "$(openssl x509 -in "$T/etc/ssl/cert.pem" -noout -ext subjectAltName)" \
  "DNS:mx.mail.example"
expect equal "$(stat -c '%U %a' "$T/etc/ssl/key.pem")" "root 600"
mv "$T/etc/ssl/key.pem" "$WORLD/key.pem"
refused "only one of cert.pem and key.pem" "$SCRIPTS/DaemonConfSet.sh" smtp
mv "$WORLD/key.pem" "$T/etc/ssl/key.pem"

step "another port"
expect postwell smtp set --port 2525 >/dev/null
expect equal "$(openPorts)" 2525
expect contains "$(greeting 127.0.0.1 --port 2525)" "220 mx.mail.example"
expect grep -qxF 'dst.ports="2525/tcp"' /usr/local/etc/services.d/postwell_port
expect postwell smtp set --port 25 >/dev/null
expect equal "$(openPorts)" 25

step "SMTPS: TLS from the first byte, with authentication"
expect postwell smtp set --smtps yes >/dev/null
expect equal "$(openPorts)" "25 465"
word=$(token)
expect send --port 465 --tls-on-connect --auth-user alice --auth-password pw-alice \
  --to alice@mx.mail.example --body "$word"
waitFor inMailbox alice "$word"
refute send --port 465 --timeout 2 --to alice@mx.mail.example
expect send --tls --to alice@mx.mail.example
expect postwell smtp set --smtps-port 2565 >/dev/null
expect equal "$(openPorts)" "25 2565"

step "the same port for both is refused while SMTPS is on"
setKey smtps_port 25
refused "another port than smtp_port" "$SCRIPTS/DaemonConfSet.sh" smtp
expect equal "$(openPorts)" "25 2565"
setKey smtp_ssl_enabled no
expect "$SCRIPTS/DaemonConfSet.sh" smtp
expect "$SCRIPTS/PostfixDaemon.sh" restart
expect equal "$(openPorts)" 25
