// ReceiveProtocol: which of POP3, POP3S, IMAP and IMAPS Dovecot offers.
//
// The four flags live in the settings file; a save rewrites all four and makes
// Dovecot follow through the package's scripts. SMTP::save() also restarts Dovecot
// through Service(), because Dovecot authenticates for Postfix and delivers for it.

#include "receive_protocol.h"

#include <new>

#include "internal/log.h"
#include "internal/paths.h"
#include "internal/settings_table.h"

using internal::SettingsTable;

namespace {

// The flags' keys, in the order in which they are read and written.
constexpr struct {
  const char *key;
  Protocol protocol;
} kFlags[] = {{"pop3_enabled", POP3},
              {"pop3s_enabled", POP3S},
              {"imap_enabled", IMAP},
              {"imaps_enabled", IMAPS}};

}  // namespace

ReceiveProtocol::ReceiveProtocol() noexcept {
  for (const auto &flag : kFlags) setProtocol(flag.protocol, false);
}

bool ReceiveProtocol::getProtocol(Protocol which) noexcept {
  const auto found = protocol.find(which);
  if (found != protocol.end()) return found->second;
  setProtocol(which, false);
  return false;
}

void ReceiveProtocol::setProtocol(Protocol which, bool enabled) noexcept {
  try {
    protocol[which] = enabled;
  } catch (const std::bad_alloc &) {
    LOG_ERROR("Out of memory");
  }
}

int ReceiveProtocol::load() noexcept try {
  SettingsTable table;
  if (!table.isAllocated()) {
    LOG_ERROR("Out of memory");
    return -1;
  }
  if (table.readFile() < 0) {
    LOG_ERROR("KLIBCFileGetPair fail");
    return -1;
  }
  for (const auto &flag : kFlags) table.get(flag.key, protocol[flag.protocol]);
  return 0;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

int ReceiveProtocol::save() noexcept {
  // Only shows that the file can be read before it is written.
  ReceiveProtocol original;
  if (original.load() < 0) {
    LOG_ERROR("fail to load original setting");
    return -1;
  }
  SettingsTable table;
  if (!table.isAllocated()) {
    LOG_ERROR("Out of memory");
    return -1;
  }
  for (const auto &flag : kFlags) table.set(flag.key, getProtocol(flag.protocol));
  if (table.writeFile() < 0) {
    LOG_ERROR("KLIBCFileSetKeys fail");
    return -1;
  }
  if (SetDovecotConfig() < 0) {
    LOG_ERROR("Fail to set dovecot config");
    return -1;
  }
  if (Service("restart") < 0) {
    LOG_ERROR("Fail to restart dovecot service");
    return -1;
  }
  return 0;
}

int ReceiveProtocol::Service(const std::string &action) noexcept {
  return KLIBCExec(paths::kDovecotDaemon, action.c_str(), nullptr, nullptr, nullptr);
}

int ReceiveProtocol::SetDovecotConfig() noexcept {
  return KLIBCExec(paths::kDaemonConfSet, "protocol", nullptr, nullptr, nullptr);
}
