// The users and groups of the programs that are built with test_users.cpp.

#ifndef POSTWELL_TESTS_ACCOUNTS_H_
#define POSTWELL_TESTS_ACCOUNTS_H_

#include "support/files.h"

// amy, bob, carol and dave; Eve of the domain CORP; finn, whose name has a domain, and
// gina of a directory. In the groups: "crew", amy and bob by listing, carol and dave by
// their primary group; "staff", gina both ways, and finn; "empty"; "left", amy and
// someone who is gone.
inline void writeAccounts() {
  writeFile("/tmp/passwd",
            "root:x:0:0::/root:/bin/sh\n"
            "amy:x:1000:1000::/home/amy:/bin/sh\n"
            "bob:x:1001:1001::/home/bob:/bin/sh\n"
            "carol:x:1002:2000::/home/carol:/bin/sh\n"
            "dave:x:1003:2000::/home/dave:/bin/sh\n"
            "CORP\\Eve:x:100001:100001::/home/eve:/bin/sh\n"
            "finn@corp.example:x:100002:100002::/home/finn:/bin/sh\n"
            "gina:x:100003:3000::/home/gina:/bin/sh\n");
  writeFile("/tmp/group",
            "crew:x:2000:amy,bob\n"
            "staff:x:3000:finn@corp.example,gina\n"
            "empty:x:4000:\n"
            "left:x:4001:amy,gone\n");
  writeFile("/tmp/users-local", "amy\nbob\ncarol\ndave\n");
  writeFile("/tmp/users-directory", "CORP\\Eve\nfinn@corp.example\ngina\n");
}

#endif  // POSTWELL_TESTS_ACCOUNTS_H_
