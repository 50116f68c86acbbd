// How a text is shown to a person.

#ifndef POSTWELL_PROGRAMS_READABLE_H_
#define POSTWELL_PROGRAMS_READABLE_H_

#include <string>

// The text for a terminal, letters of all scripts as they stand. What could drive the
// terminal, begin a line, or hide or reorder other letters is shown as printable() does,
// as is all of a text that is not valid UTF-8.
std::string readable(const std::string &text);

#endif  // POSTWELL_PROGRAMS_READABLE_H_
