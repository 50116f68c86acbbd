// Working in a user's home directory without the rights of root.

#ifndef POSTWELL_PROGRAMS_AS_USER_H_
#define POSTWELL_PROGRAMS_AS_USER_H_

#include <string>

// Makes this process the user's for good, with its groups; files that it makes are for
// the user alone. Whatever the user has put into the home directory, a link among it,
// then leads no further than the user's own rights. Throws Failure when there is no such
// user, it is root, or the caller is neither root nor this user.
void becomeUser(const std::string &user);

#endif  // POSTWELL_PROGRAMS_AS_USER_H_
