// The host platform with failure switches. A test program that links this file
// calls the real libkestcore and libkestsdk through it: every call of the library
// is counted and noted, and the Nth call of a function can be made to fail as its
// contract says a failure looks.

#ifndef POSTWELL_TESTS_PLATFORM_FAULTS_H_
#define POSTWELL_TESTS_PLATFORM_FAULTS_H_

#include <string>
#include <vector>

namespace platform {

// Forgets all switches and notes.
void reset();

// Makes the `nth` call from now on of `function` ("KLIBCFileSetKeys") fail.
void failCall(const std::string &function, int nth = 1);

// Makes the next call of a function that returns int return this instead of doing
// anything: another negative value than -1, or a positive one, which is no failure.
void answerCall(const std::string &function, int result);

// What was called so far, oldest first, without the table's own get and set;
// forgets it. A call is noted as its name, then what it worked on:
// "KLIBCExec /path argument", "KLIBCFileSetSectionValue section 25".
std::vector<std::string> takeCalls();

}  // namespace platform

#endif  // POSTWELL_TESTS_PLATFORM_FAULTS_H_
