// What every public header of libpostwell shares, and the library's free helpers.
//
// Conventions of the library: operations return 0 on success and a negative
// value on failure, write each failure to the system log (LOG_ERR, the text
// begins with source file and line), and throw nothing unless their comment says
// so. Every object is meant for one thread. A settings class is loaded, changed in
// memory by its setters, and saved; saving writes its own keys of the settings file
// "/var/packages/Postwell/etc/postwell.conf" and makes the daemons follow.

#ifndef POSTWELL_H_
#define POSTWELL_H_

#include <list>
#include <map>
#include <string>

// Marks what libpostwell.so exports; everything else in it is hidden.
#define POSTWELL_API __attribute__((visibility("default")))

// Which side of a message a rule looks at. Stored as these numbers.
enum Type : int { TYPE_SENDER = 0, TYPE_RECIPIENT = 1, TYPE_CLIENT = 2 };

// What a rule's name is: a local account, a full address or a domain. Stored as these
// numbers.
enum NameType : int { NAME_ACCOUNT = 0, NAME_ADDRESS = 1, NAME_DOMAIN = 2 };

// A page of a list of rules, and what to search for in it.
struct Filter {
  int start;         // how many rules to skip
  int limit;         // how many to give at most
  std::string type;  // "all", "sender", "recipient" or "client"; any other: nothing
  std::string key;   // part of a name; empty: all rules, whatever `type` says
};

// Appends the lines of the first section "[section]" of a file to `lines`, white space
// at both ends removed, blank lines left out; there are no comments. A line that begins
// with "[" in its first column ends the section. Returns 0, also when the section is
// missing, or -1 when a pointer is null, the file cannot be opened or memory for the list
// is short; a line that cannot be read ends the file.
POSTWELL_API int GetSectionContent(const char *path, const char *section,
                                   std::list<std::string> &lines) noexcept;

// The items with the separator between neighbours. May throw std::bad_alloc.
POSTWELL_API std::string StringJoin(const std::list<std::string> &items,
                                    const char *separator);

// The pieces of the text between occurrences of the whole delimiter, empty ones left
// out. Neither argument may be null, nor the delimiter empty. May throw
// std::bad_alloc.
POSTWELL_API std::list<std::string> StringSplit(const char *text, const char *delimiter);

// Removes blanks (0x20 only) at the end, then at the beginning, then newlines at the
// end; a blank before a final newline stays.
POSTWELL_API void Trim(std::string &text) noexcept;

// The account without its domain: what follows the last backslash of "DOMAIN\name", or
// else what precedes the first "@" of "name@domain". A backslash or "@" at the very
// beginning sets off no domain and stays. May throw std::bad_alloc.
POSTWELL_API std::string TrimDomainName(const std::string &name);

// Makes the calling process the one instance of a service: ends the process that
// pidFile names (SIGTERM, then two seconds), detaches unless `foreground` (working
// directory "/", standard streams to /dev/null unless keepDescriptors), and writes the
// own process id to pidFile. Returns 0, or -1 when detaching fails (pidFile is then
// left alone) or pidFile cannot be written.
POSTWELL_API int ProcessEnvInit(const char *pidFile, bool foreground,
                                bool keepDescriptors) noexcept;

// Whether the machine has the memory that the anti-virus scanner needs (384 MiB).
POSTWELL_API bool IsSupportAntiVirus() noexcept;

// The names to which imported rules may refer, each with the value true: the local
// users and the aliases. Empty on failure.
POSTWELL_API std::map<std::string, bool> GetValidMap() noexcept;

#endif  // POSTWELL_H_
