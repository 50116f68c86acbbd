// The host's core library (libkestcore): what Postwell requires of it.
//
// The appliance brings its own libkestcore; elsewhere the portable one in
// platform/core takes its place. Both keep the contracts written here. Every
// function is plain C, throws nothing, and is meant for one thread at a time
// unless its comment says otherwise. "Negative" results leave a code that
// KLIBCErrGet() returns.

#ifndef KESTCORE_H_
#define KESTCORE_H_

#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

// Codes of KLIBCErrGet(); the last failure of the calling thread.
enum KLIBCError {
  KLIBC_ERR_NONE = 0x0000,
  KLIBC_ERR_BAD_PARAMETERS = 0x0D00,  // null pointer, empty key, bad format
  KLIBC_ERR_OUT_OF_MEMORY = 0x0200,
  KLIBC_ERR_OPEN_FAILED = 0x0900,  // file missing, unreadable, not creatable
  KLIBC_ERR_READ_FAILED = 0x0B00,
  KLIBC_ERR_WRITE_FAILED = 0x0C00,
  KLIBC_ERR_VALUE_REFUSED = 0x0E00,  // a key or value that would forge a line
  KLIBC_ERR_TOO_LONG = 0x0F00,       // does not fit the caller's buffer
  KLIBC_ERR_NOT_FOUND = 0x0700,
  KLIBC_ERR_EXEC_FAILED = 0x1000,  // not runnable, non-zero exit, signal
  KLIBC_ERR_CRYPT_FAILED = 0x1100,
};

// The code left by the last function of this library that failed in the
// calling thread; KLIBC_ERR_NONE before any failure. Success does not reset it.
int KLIBCErrGet(void);

// ---- String-to-string table -------------------------------------------------

// A table of text pairs that remembers the order in which keys were first set.
typedef struct KLIBCSzHash KLIBCSzHash;

// Creates an empty table with room for `size` pairs before it has to grow.
// Returns null when memory is short or size is not positive. The caller frees
// it with KLIBCSzHashFree().
KLIBCSzHash *KLIBCSzHashAlloc(int size);

// The value of `key`, or null when the key is absent or an argument is null.
// The text belongs to the table and lives until the key is set again or the
// table is freed.
const char *KLIBCSzHashGetValue(const KLIBCSzHash *table, const char *key);

// Puts or replaces one pair, copying both texts; may move *table. Returns 0,
// or a negative value (bad parameters, memory) with the table as it was.
int KLIBCSzHashSetValue(KLIBCSzHash **table, const char *key, const char *value);

// Frees the table and all its texts; null is accepted.
void KLIBCSzHashFree(KLIBCSzHash *table);

// ---- String list ------------------------------------------------------------

// A list of texts in the order in which they were pushed.
typedef struct KLIBCSzList KLIBCSzList;

// Creates an empty list with room for `size` items before it has to grow.
// Returns null when memory is short or size is not positive. The caller frees
// it with KLIBCSzListFree().
KLIBCSzList *KLIBCSzListAlloc(int size);

// Appends a copy of `item`; may move *list. Returns the new number of items,
// or a negative value with the list as it was.
int KLIBCSzListPush(KLIBCSzList **list, const char *item);

// The item at `index` (from 0), or null past either end. The text belongs to
// the list and lives until the next push.
const char *KLIBCSzListGet(const KLIBCSzList *list, int index);

// Frees the list and its items; null is accepted.
void KLIBCSzListFree(KLIBCSzList *list);

// ---- Key/value files ----------------------------------------------------------
//
// A settings line is: key, "=", and a value that stands between the first and
// the last double quote of the line; blanks around the key do not count and
// whatever follows the last quote is ignored. Nothing is escaped. Lines that
// are not of this form, lines whose first visible character is "#" or "[", and
// lines that hold a NUL byte are comments: never read, always kept to the byte.
// When a key occurs on several lines the last one counts for reading, and
// writing replaces them all.
//
// Every function that writes holds a lock between processes from its reading to
// its end and replaces the file in one step: a new file beside it is written,
// synced and renamed, and the folder synced. Mode and owner of an existing file
// are kept (a symbolic link is followed); a missing file is created with mode
// 0644. A crash at any moment leaves the old file or the new one, whole. A
// negative result leaves the old one, with a single exception: when the folder
// cannot be synced after the rename (a failing disk), the new one stands already.
//
// `format` is a line with exactly two "%s", for key and value in this order,
// "%%" for a percent sign, no other conversion; it must end with a newline. A
// null format means "%s=\"%s\"\n".
//
// A write is refused (KLIBC_ERR_VALUE_REFUSED, file untouched) when a value
// holds a newline, or when a key is empty or holds a newline, "=", a double
// quote, a blank at either end, or begins with "#" or "[": each would read back
// as something else.

// Reads every settings line of `path` into *table, which may move. Returns the
// number of settings lines, or a negative value when the file is missing or
// cannot be read; the table may then hold some of the pairs.
int KLIBCFileGetPair(const char *path, KLIBCSzHash **table);

// Rewrites `path` so that every key of the table has the table's value: lines
// of such keys are replaced where they stand, keys not in the file are added at
// its end in the table's order, everything else is kept to the byte. `flags` is
// 0. Returns 0, or a negative value with the file as it was.
int KLIBCFileSetKeys(const char *path, const KLIBCSzHash *table, int flags,
                     const char *format);

// Copies the value of `key` into buffer[size], NUL included. Returns the length
// of the value; 0 with an empty buffer when the key is absent; a negative value
// when the file is missing or cannot be read, or when the value does not fit
// (the buffer is then empty, never a part of the value). `flags` is 0.
int KLIBCFileGetKeyValue(const char *path, const char *key, char *buffer, int size,
                         int flags);

// KLIBCFileSetKeys() for one key.
int KLIBCFileSetKeyValue(const char *path, const char *key, const char *value,
                         const char *format);

// ---- Files with [section] headers -------------------------------------------
//
// A header is a line that, blanks at both ends apart, begins with "[" and ends
// with "]"; the section's name is what stands between, blanks at both ends
// apart. Names of sections, and of keys inside them, are compared without regard
// to the case of ASCII letters. A section ends at the next header.

// Copies the value of `key` of the first section named `section` into
// buffer[size], NUL included. Besides settings lines, lines without quotes are
// read (`workgroup = OFFICE`): the value is then the text after "=", blanks at
// both ends apart; lines that begin with ";" are comments as well. Returns 0; a
// negative value when the file cannot be read, section or key is absent, or the
// value does not fit (the buffer is then empty).
int KLIBCFileGetSectionValue(const char *path, const char *section, const char *key,
                             char *buffer, int size);

// Replaces, or adds at the end of the section, one key of the first section
// named `section`; a missing section is added at the end of the file. Written
// with the guarantees and refusals of the settings files; besides, a key must not
// begin with ";", and a section name must hold no newline, no "]" and no blank at
// either end. Returns 0, or a negative value with the file as it was.
int KLIBCFileSetSectionValue(const char *path, const char *section, const char *key,
                             const char *value, const char *format);

// 1 when the line of `length` bytes (newline included or not) is a section
// header, else 0.
int KLIBCIFileIsSection(const char *line, int length);

// 1 when the line is the header of the section named `section`, else 0.
int KLIBCIFileMatchSection(const char *line, int length, const char *section);

// ---- Files --------------------------------------------------------------------

// 1 when something exists at `path` (as access(path, F_OK) tells), else 0.
int KLIBCFileExist(const char *path);

// Finds the first line of `path` that holds `text` and copies it, without its
// newline and cut to fit, into buffer[size]. Returns the number of bytes copied
// (above 0); 0 with an empty buffer when no line holds it; negative when the
// file cannot be read. `text` must not be empty and size be 2 at least; `flags`
// is 0.
int KLIBCFileGetLine(const char *path, const char *text, char *buffer, int size,
                     int flags);

// ---- Processes ------------------------------------------------------------------

// Runs `program` (a path) with up to four arguments, the first null ending the
// list, and waits for it. No shell is involved. The child has the caller's
// environment and its standard input, output and error, no other descriptor, an
// empty signal mask and default signal actions. Returns 0 when it exits with
// status 0; a negative value when it cannot be run, exits with another status,
// dies by a signal, or its status cannot be known (the caller ignores SIGCHLD).
// Safe to call from several threads.
int KLIBCExec(const char *program, const char *arg1, const char *arg2, const char *arg3,
              const char *arg4);

// The process id written in the first line of `path`; 0 when the file is
// missing, unreadable or holds no positive number that is a process id.
pid_t KLIBCReadPidFile(const char *path);

// Writes the calling process's id and a newline to `path` (mode 0644), replacing
// what was there. Returns 0, or a negative value.
int KLIBCProcPidFileCreate(const char *path);

// ---- Strings ----------------------------------------------------------------------

// Strips white space (blank, tab, CR, LF, VT, FF) from both ends of `text` in
// place. Returns the remaining length, 0 when nothing is left, or a negative
// value when text is null. `flags` is 0.
int KLIBCStrTrimSpace(char *text, int flags);

// A newly allocated text made as by printf, or null (memory, bad format). The
// caller releases it with KLIBCStrPut().
char *KLIBCStrGet(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Releases a text of KLIBCStrGet(); null is accepted.
void KLIBCStrPut(char *text);

// ---- Reversible encryption of short secrets -----------------------------------

// Encrypts `plain` into printable text without quotes or blanks, NUL included,
// in buffer[size]. A random key, made on first use, stays on this machine
// ("/usr/kest/etc/secret.key", readable by its owner alone); the same secret
// gives another text each time. A buffer of 345 bytes carries a secret of up to
// 215 bytes. Returns 1, or 0 when the text would not fit or the key can neither
// be read nor made (the buffer is then empty).
int KLIBCryptSzEncrypt(const char *plain, char *buffer, int size);

// Turns a text of KLIBCryptSzEncrypt() back into the secret, NUL included, in
// buffer[size]; the empty text gives the empty secret. Returns 1, or 0 when the
// text was changed, comes from another machine, or does not fit (the buffer is
// then empty).
int KLIBCryptSzDecrypt(const char *text, char *buffer, int size);

#ifdef __cplusplus
}
#endif

#endif  // KESTCORE_H_
