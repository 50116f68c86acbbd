// The mail-retrieval protocols that Dovecot offers.

#ifndef POSTWELL_RECEIVE_PROTOCOL_H_
#define POSTWELL_RECEIVE_PROTOCOL_H_

#include <map>
#include <string>

#include "postwell.h"

enum Protocol : int { POP3 = 0, POP3S = 1, IMAP = 2, IMAPS = 3 };

class POSTWELL_API ReceiveProtocol {
 public:
  // All four protocols disabled.
  ReceiveProtocol() noexcept;

  // The flag in memory. A protocol that the object does not know yet is
  // remembered as disabled.
  bool getProtocol(Protocol which) noexcept;

  // Changes memory only.
  void setProtocol(Protocol which, bool enabled) noexcept;

  // Reads the four flags from the settings file; a flag whose key is absent
  // keeps its value. Returns 0, or -1 with every flag as it was.
  int load() noexcept;

  // Writes the four flags, then regenerates Dovecot's configuration and restarts
  // Dovecot, whether or not a flag changed. Returns 0, or -1 at the first step
  // that fails; what was written before it stays written.
  int save() noexcept;

  // Runs Dovecot's service script with "start", "stop" or "restart" and waits.
  // Returns 0, or a negative value.
  static int Service(const std::string &action) noexcept;

  // Regenerates Dovecot's configuration from the settings file. Returns 0, or a
  // negative value.
  static int SetDovecotConfig() noexcept;

 private:
  std::map<Protocol, bool> protocol;
};

#endif  // POSTWELL_RECEIVE_PROTOCOL_H_
