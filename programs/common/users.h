// The users of this host.

#ifndef POSTWELL_PROGRAMS_USERS_H_
#define POSTWELL_PROGRAMS_USERS_H_

#include <string>
#include <vector>

// Appends the users that have mail with this account type: those of this machine and,
// for "ldap" and "win", those of the directory or domain. False when the host cannot
// list them all.
bool listUsers(const std::string &accountType, std::vector<std::string> *users);

// The home directory of a user "name", "name@domain" of a directory or "DOMAIN\name" of
// a domain; empty when the host does not know it.
std::string homeOf(const std::string &user);

#endif  // POSTWELL_PROGRAMS_USERS_H_
