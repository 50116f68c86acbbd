#!/bin/bash
# SpamRuleCheck.sh FILE NAME
#
# Says whether SpamAssassin takes the settings as they are with this rule file beside them,
# under this name; changes nothing. Exit status 0; 1 with one line on stderr and in the
# system log; 2 for wrong arguments.

here=$(dirname "$(readlink -f "$0")")
# shellcheck source=common.sh
. "$here/common.sh"
# shellcheck source=generate/spam.sh
. "$here/generate/spam.sh"
[[ $# -eq 2 && $2 != */* ]] || usage "FILE NAME"

lock configuration
readSettings
checkRuleFile "$1" "$2"
