# shellcheck shell=bash
# Postfix's alias database. Sourced by DaemonConfSet.sh, which calls generate.
#
# kest_alias_map puts it in place in one step, and running daemons see it without a
# reload. What it has to leave out, it names on stderr.

generate() { "$T/bin/kest_alias_map" || fail "cannot make the alias map"; }
