// kest_bcc_map: makes Postfix's tables of hidden copies from the BCC rules in
// postwell.db.
//
// Run by the library after each change of the rules. Rules that a table cannot carry are
// named on standard error and left out; the rest is made.
//
// Exit status: 0 done, 1 failed with the old tables in force, 2 wrong usage.

#include "common/bcc_map.h"

int main(int argc, char **) {
  return runMapMaker("kest_bcc_map", argc, [] { return makeBccMaps(readBccRules()); });
}
