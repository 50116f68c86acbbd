// The host's SDK (libkestsdk): users, firewall, platform events, as Postwell
// requires them. The appliance brings its own; the portable one stands in
// platform/sdk. Plain C, throws nothing.

#ifndef KESTSDK_H_
#define KESTSDK_H_

#include "kestcore.h"

#ifdef __cplusplus
extern "C" {
#endif

// Which users KESTUserEnum() lists.
enum KESTUserType {
  KEST_USER_LOCAL = 1,      // accounts of this machine
  KEST_USER_DIRECTORY = 2,  // accounts that come from a domain or directory
};

// Appends the login names of the users of the given type to *list, which may
// move, in the order in which the host lists them. The portable version asks the
// name service switch: local accounts have a UID within UID_MIN..UID_MAX of
// /etc/login.defs (1000..60000 when it does not say), directory accounts one
// above that range ("nobody" is neither). Returns the number of names appended,
// or a negative value.
int KESTUserEnum(KLIBCSzList **list, int type);

// Copies the home directory of a Windows-domain user ("DOMAIN\name") into
// buffer[size], NUL included. Returns 0; negative when the user is unknown, has
// no home or the path does not fit (the buffer is then empty).
int KESTDomainUserHomePathGet(const char *user, char *buffer, int size);

// The same for a user of an LDAP directory ("name" or "name@domain").
int KESTLDAPUserHomePathGet(const char *user, char *buffer, int size);

// Makes the host's firewall read its port files again. The portable version runs
// the host's hook "/usr/kest/etc/firewall-reload" when there is one and does
// nothing otherwise. Returns 0, or a negative value when the hook fails.
int KESTFwRuleHup(void);

// Records the platform event `event` of the host's event catalogue. `source` and
// `level` are the host's (1 and 1: system, information); the four texts fill the
// event's place holders and may be empty, not null. The portable version writes
// one line to the system log that carries the number. Returns 0, or a negative
// value for a null text.
int KESTLogSet1(int source, int level, unsigned int event, const char *text1,
                const char *text2, const char *text3, const char *text4);

#ifdef __cplusplus
}
#endif

#endif  // KESTSDK_H_
