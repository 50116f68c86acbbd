// What is said beside a query's answer: on standard error, so that the answer stays one.

#ifndef POSTWELL_PROGRAMS_LOG_STATE_H_
#define POSTWELL_PROGRAMS_LOG_STATE_H_

#include <string>

// Writes the text, which is safe to print, behind the program's name.
void tell(const std::string &text);

// Names the daemons that have to run for anything new to come in and do not. Whether
// there are any.
bool tellDaemons();

#endif  // POSTWELL_PROGRAMS_LOG_STATE_H_
