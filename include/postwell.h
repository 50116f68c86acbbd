// What every public header of libpostwell shares.
//
// Conventions of the library: operations return 0 on success and a negative
// value on failure, write each failure to the system log (LOG_ERR, the text
// begins with source file and line), and throw nothing. Every object is meant
// for one thread. A settings class is loaded, changed in memory by its setters,
// and saved; saving writes its own keys of the settings file
// "/var/packages/Postwell/etc/postwell.conf" and makes the daemons follow.

#ifndef POSTWELL_H_
#define POSTWELL_H_

// Marks what libpostwell.so exports; everything else in it is hidden.
#define POSTWELL_API __attribute__((visibility("default")))

#endif  // POSTWELL_H_
