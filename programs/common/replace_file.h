// Puts a generated file in the place of the old one.

#ifndef POSTWELL_PROGRAMS_REPLACE_FILE_H_
#define POSTWELL_PROGRAMS_REPLACE_FILE_H_

#include <string>

// Makes `text` what the file at this absolute path holds, all at once and readable by
// all; its folder is made if need be. Returns what went wrong, with the old file in its
// place; empty when nothing did.
std::string replaceFile(const std::string &path, const std::string &text);

#endif  // POSTWELL_PROGRAMS_REPLACE_FILE_H_
