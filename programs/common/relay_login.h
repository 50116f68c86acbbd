// What an account and a password for the relay may hold.
//
// Both end up in one line "[host]:port account:password" of a Postfix table's
// source. Postfix takes the account up to the first colon, cuts blanks at the
// line's end, and ignores a line that is not UTF-8.

#ifndef POSTWELL_PROGRAMS_RELAY_LOGIN_H_
#define POSTWELL_PROGRAMS_RELAY_LOGIN_H_

#include <string>

// What the rest of such a line must not be, as the end of a sentence that begins
// "the account …" or "the password …"; empty when there is nothing to say. The
// text never holds a part of the account or password.
std::string accountProblem(const std::string &account);
std::string passwordProblem(const std::string &password);

#endif  // POSTWELL_PROGRAMS_RELAY_LOGIN_H_
