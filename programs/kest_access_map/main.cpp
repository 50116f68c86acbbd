// kest_access_map: makes the tables of Postfix's access checks from the access rules in
// postwell.db.
//
// Run after a change of the rules, and by DaemonConfSet.sh, since account rules hold in
// the local domains. Rules that a table cannot carry are named on standard error and left
// out; the rest is made.
//
// Exit status: 0 done, 1 failed with the old tables in force, 2 wrong usage.

#include "common/access_map.h"
#include "common/local_domains.h"

int main(int argc, char **) {
  return runMapMaker("kest_access_map", argc,
                     [] { return makeAccessMaps(readAccessRules(), localDomains()); });
}
