// The connections that the library has opened and not closed. A test program that links
// this file stands between the library and SQLite's open and close.

#ifndef POSTWELL_TESTS_CONNECTIONS_H_
#define POSTWELL_TESTS_CONNECTIONS_H_

namespace connections {

// How many are open.
int left();

// Makes the next close fail with code 5, as one with a statement unfinished does.
void failClose();

// Closes them, those of live handles, too.
void closeLeft();

}  // namespace connections

#endif  // POSTWELL_TESTS_CONNECTIONS_H_
