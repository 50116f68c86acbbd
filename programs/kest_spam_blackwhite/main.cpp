// kest_spam_blackwhite: makes SpamAssassin's lists from the black and white lists in
// postwell.db, and makes a running spam filter read them.
//
// Run after a change of the lists, and by DaemonConfSet.sh, since entries on accounts
// hold in the local domains. Entries that SpamAssassin cannot be told of are named on
// standard error and left out; the rest is made.
//
// Exit status: 0 done, 1 failed, 2 wrong usage.

#include "common/local_domains.h"
#include "common/spam_lists.h"

int main(int argc, char **) {
  return runMapMaker(
      "kest_spam_blackwhite", argc,
      [] { return makeSpamLists(readSpamEntries(), localDomains()); }, replaceSpamLists,
      tellSpamFilter);
}
