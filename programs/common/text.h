// What a text from outside may hold, and how to show one that holds anything.

#ifndef POSTWELL_PROGRAMS_TEXT_H_
#define POSTWELL_PROGRAMS_TEXT_H_

#include <string>

// The text for a terminal or a log: printable ASCII as it stands, every other
// byte as \xNN. For the eye; it cannot be turned back.
std::string printable(const std::string &text);

// The same between double quotes.
std::string inQuotes(const std::string &text);

// Whether the text holds an ASCII control character (NUL, newline, DEL, …).
bool hasControl(const std::string &text);

// Whether the text consists of ASCII letters, digits and these other characters.
bool isMadeOf(const std::string &text, const char *others);

// Whether the text is valid UTF-8. Postfix ignores table lines that are not.
bool isUtf8(const std::string &text);

// The text with ASCII capitals made small, whatever the locale.
std::string lowerCase(std::string text);

#endif  // POSTWELL_PROGRAMS_TEXT_H_
