#!/bin/bash
# SpamRuleCheck.sh FILE NAME
#
# Says whether SpamAssassin takes the settings as they are with this rule file beside them,
# under this name: letters, digits and "._-" behind the first, with ".cf" at the end, but not
# local.cf. The configuration in force stays as it is; missing folders are made, and the rule
# files that are switched on become readable to the filter. Exit status 0; 1 with one line on
# stderr and in the system log; 2 for wrong arguments.

here=$(dirname "$(readlink -f "$0")")
# shellcheck source=common.sh
. "$here/common.sh"
# shellcheck source=generate/spam.sh
. "$here/generate/spam.sh"
[[ $# -eq 2 && $2 =~ ^[A-Za-z0-9_][A-Za-z0-9._-]*\.cf$ && $2 != local.cf ]] || usage "FILE NAME"

lock configuration
readSettings
checkRuleFile "$1" "$2"
