// SMTP and Relay: the settings of Postfix and of its outgoing relay.
//
// SMTP::save() is the road of a changed setting: settings file, firewall's port
// file, login map, Postfix's configuration, firewall, Postfix, Dovecot. The file is
// written before any daemon is touched; a failure ends the road there and leaves
// the new settings in the file. The relay password is plain only in memory: the
// file holds what the host's encryption makes of it.

#include "smtp.h"

#include <strings.h>  // explicit_bzero

#include <cstring>
#include <new>

#include "internal/log.h"
#include "internal/paths.h"
#include "internal/settings_table.h"
#include "internal/text.h"
#include "kestcore.h"
#include "kestsdk.h"
#include "receive_protocol.h"

using internal::SettingsTable;

namespace {

// Room for a secret, wiped when it goes.
struct SecretBuffer {
  char text[4096] = "";
  ~SecretBuffer() { explicit_bzero(text, sizeof text); }
};

}  // namespace

// ---- Relay

Relay::Relay() noexcept
    : _enableRelay(false),
      _serverPort(0),
      _enableSecureConnect(false),
      _enableRelayAuth(false) {}

bool Relay::isRelayEnabled() const noexcept { return _enableRelay; }
const std::string &Relay::getRelayServer() const noexcept { return _server; }
int Relay::getRelayServerPort() const noexcept { return _serverPort; }
bool Relay::isSecureConnEnabled() const noexcept { return _enableSecureConnect; }
bool Relay::isRelayAuthEnabled() const noexcept { return _enableRelayAuth; }
const std::string &Relay::getRelayAccount() const noexcept { return _relayAccount; }

void Relay::setRelay(bool enabled) noexcept { _enableRelay = enabled; }

void Relay::setRelayServerInfo(const std::string &server, int port) noexcept {
  // both or neither: they are one destination
  if (ASSIGN_TEXT(_server, server)) _serverPort = port;
}

void Relay::setSecureConn(bool enabled) noexcept { _enableSecureConnect = enabled; }
void Relay::setRelayAuthEnable(bool enabled) noexcept { _enableRelayAuth = enabled; }

void Relay::setRelayAccount(const std::string &account) noexcept {
  ASSIGN_TEXT(_relayAccount, account);
}

void Relay::setRelayPassword(const std::string &password) noexcept {
  ASSIGN_TEXT(_relayPassword, password);
}

int Relay::loadSetting() noexcept try {
  SettingsTable table;
  if (!table.isAllocated()) {
    LOG_ERROR("Out of memory");
    return -1;
  }
  if (table.readFile() < 0) {
    LOG_ERROR("KLIBCFileGetPair fail");
    return -1;
  }
  table.get("smtp_relay_enabled", _enableRelay);
  table.get("smtp_relay_server", _server);
  table.get("smtp_relay_server_port", _serverPort);
  table.get("smtp_relay_secure_conn", _enableSecureConnect);
  table.get("smtp_relay_auth_enabled", _enableRelayAuth);
  table.get("smtp_relay_account", _relayAccount);
  const char *stored = table.find("smtp_relay_password");
  if (stored == nullptr) return 0;
  SecretBuffer plain;
  if (KLIBCryptSzDecrypt(stored, plain.text, sizeof plain.text - 1) == 0) {
    LOG_ERROR("KLIBCryptSzDecrypt fail");
    return -1;
  }
  _relayPassword = plain.text;
  return 0;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

int Relay::saveSetting() noexcept {
  SettingsTable table;
  if (!table.isAllocated()) {
    LOG_ERROR("Out of memory");
    return -1;
  }
  char encrypted[345] = "";
  // the host takes C text: of a password with a NUL inside it would keep a part only
  if (_relayPassword.find('\0') != std::string::npos ||
      KLIBCryptSzEncrypt(_relayPassword.c_str(), encrypted, sizeof encrypted) == 0) {
    LOG_ERROR("KLIBCryptSzEncrypt fail");
    return -1;
  }
  table.set("smtp_relay_enabled", _enableRelay);
  table.set("smtp_relay_server", _server);
  table.set("smtp_relay_server_port", _serverPort);
  table.set("smtp_relay_secure_conn", _enableSecureConnect);
  table.set("smtp_relay_auth_enabled", _enableRelayAuth);
  table.set("smtp_relay_account", _relayAccount);
  table.set("smtp_relay_password", encrypted);
  if (table.writeFile() < 0) {
    LOG_ERROR("KLIBCFileSetKeys fail");
    return -1;
  }
  return 0;
}

// ---- SMTP

SMTP::SMTP() noexcept
    : _enableSMTP(false),
      _accountType("local"),
      _enableSMTPAuth(true),
      _SMTPIgnoreAuth(false),
      _smtpPort(25),
      _messageSizeLimit(10),
      _restrictSender(false),
      _enableSMTPS(false),
      _smtpsPort(465) {}

bool SMTP::isEnabled() const noexcept { return _enableSMTP; }
const std::string &SMTP::getAccountType() const noexcept { return _accountType; }
const std::string &SMTP::getAccDomainName() const noexcept { return _accDomainName; }
bool SMTP::isSMTPAuthEnabled() const noexcept { return _enableSMTPAuth; }
bool SMTP::isSMTPIgnoreAuth() const noexcept { return _SMTPIgnoreAuth; }
const std::string &SMTP::getHostName() const noexcept { return _hostName; }
int SMTP::getSMTPPort() const noexcept { return _smtpPort; }
int SMTP::getMessageSizeLimit() const noexcept { return _messageSizeLimit; }
bool SMTP::isRestrictSender() const noexcept { return _restrictSender; }
bool SMTP::isEnabledSMTPS() const noexcept { return _enableSMTPS; }
int SMTP::getSMTPsPort() const noexcept { return _smtpsPort; }

bool SMTP::isRelayEnabled() const noexcept { return _relay.isRelayEnabled(); }
const std::string &SMTP::getRelayServer() const noexcept {
  return _relay.getRelayServer();
}
int SMTP::getRelayServerPort() const noexcept { return _relay.getRelayServerPort(); }
bool SMTP::isRelayAuthEnabled() const noexcept { return _relay.isRelayAuthEnabled(); }
bool SMTP::isSecureConnEnabled() const noexcept { return _relay.isSecureConnEnabled(); }
const std::string &SMTP::getRelayAccount() const noexcept {
  return _relay.getRelayAccount();
}

void SMTP::setSMTP(bool enabled) noexcept { _enableSMTP = enabled; }
void SMTP::setAccountType(const std::string &type) noexcept {
  ASSIGN_TEXT(_accountType, type);
}
void SMTP::setAccDomainName(const std::string &name) noexcept {
  ASSIGN_TEXT(_accDomainName, name);
}
void SMTP::setSMTPAuth(bool enabled) noexcept { _enableSMTPAuth = enabled; }
void SMTP::setSMTPIgnoreAuth(bool enabled) noexcept { _SMTPIgnoreAuth = enabled; }
void SMTP::setHostName(const std::string &name) noexcept { ASSIGN_TEXT(_hostName, name); }
void SMTP::setSMTPPort(int port) noexcept { _smtpPort = port; }
void SMTP::setMessageSizeLimit(int limit) noexcept { _messageSizeLimit = limit; }
void SMTP::setRestrictSender(bool enabled) noexcept { _restrictSender = enabled; }
void SMTP::setSMTPS(bool enabled) noexcept { _enableSMTPS = enabled; }
void SMTP::setSMTPsPort(int port) noexcept { _smtpsPort = port; }

void SMTP::setRelay(bool enabled) noexcept { _relay.setRelay(enabled); }
void SMTP::setRelayServerInfo(const std::string &server, int port) noexcept {
  _relay.setRelayServerInfo(server, port);
}
void SMTP::setSecureConn(bool enabled) noexcept { _relay.setSecureConn(enabled); }
void SMTP::setRelayAuthEnable(bool enabled) noexcept {
  _relay.setRelayAuthEnable(enabled);
}
void SMTP::setRelayAccount(const std::string &account) noexcept {
  _relay.setRelayAccount(account);
}
void SMTP::setRelayPassword(const std::string &password) noexcept {
  _relay.setRelayPassword(password);
}

int SMTP::load() noexcept {
  return loadSMTPSetting() < 0 || loadRelaySetting() < 0 ? -1 : 0;
}

int SMTP::loadSMTPSetting() noexcept try {
  SettingsTable table;
  if (!table.isAllocated()) {
    LOG_ERROR("Out of memory");
    return -1;
  }
  if (table.readFile() < 0) {
    LOG_ERROR("KLIBCFileGetPair fail");
    return -1;
  }
  table.get("smtp_enabled", _enableSMTP);
  table.get("account_type", _accountType);
  if (const char *type = table.find("account_type"); type != nullptr && *type == '\0')
    _accountType = "local";
  table.get("acc_domain_name", _accDomainName);
  table.get("smtp_auth_enabled", _enableSMTPAuth);
  table.get("smtp_ignore_lan_auth", _SMTPIgnoreAuth);
  table.get("smtp_hostname", _hostName);
  table.get("smtp_port", _smtpPort);
  table.get("message_limit", _messageSizeLimit);
  table.get("restrict_sender", _restrictSender);
  table.get("smtp_ssl_enabled", _enableSMTPS);
  table.get("smtps_port", _smtpsPort);
  return 0;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

namespace {

// The short name of the Windows domain, as Samba knows it; empty when it cannot be
// read, which is no failure.
void readWorkgroup(char *buffer, int size) {
  if (KLIBCFileGetSectionValue(paths::kSambaConfig, "global", "workgroup", buffer,
                               size) != 0)
    buffer[0] = '\0';
}

// Tells the firewall's port file which TCP port a service uses.
int setServicePort(const char *service, int port) {
  char text[16];
  snprintf(text, sizeof text, "%d", port);
  return KLIBCFileSetSectionValue(paths::kPorts, service, "dst.ports", text,
                                  "%s=\"%s/tcp\"\n");
}

}  // namespace

int SMTP::saveSMTPSetting() noexcept {
  SettingsTable table;
  if (!table.isAllocated()) {
    LOG_ERROR("Out of memory");
    return -1;
  }
  table.set("smtp_enabled", _enableSMTP);
  table.set("account_type", _accountType);
  table.set("acc_domain_name", _accDomainName);
  char shortName[128] = "";
  if (_accountType == "win") readWorkgroup(shortName, sizeof shortName);
  table.set("win_domain_short_name", shortName);
  table.set("smtp_auth_enabled", _enableSMTPAuth);
  table.set("smtp_ignore_lan_auth", _SMTPIgnoreAuth);
  table.set("smtp_hostname", _hostName);
  table.set("smtp_port", _smtpPort);
  table.set("message_limit", _messageSizeLimit);
  table.set("restrict_sender", _restrictSender);
  table.set("smtp_ssl_enabled", _enableSMTPS);
  table.set("smtps_port", _smtpsPort);
  if (table.writeFile() < 0) {
    LOG_ERROR("KLIBCFileSetKeys fail");
    return -1;
  }
  if (setServicePort("mail_smtp", _smtpPort) < 0) {
    LOG_ERROR("set smtp port in %s fail", paths::kPorts);
    return -1;
  }
  // also while SMTPS is off: the firewall is to know the port beforehand
  if (setServicePort("mail_smtps", _smtpsPort) < 0) {
    LOG_ERROR("set smtps in %s fail", paths::kPorts);
    return -1;
  }
  return 0;
}

int SMTP::loadRelaySetting() noexcept { return _relay.loadSetting(); }
int SMTP::saveRelaySetting() noexcept { return _relay.saveSetting(); }

int SMTP::save() noexcept {
  const char *action = "restart";
  SMTP previous;
  if (previous.load() < 0) {
    LOG_ERROR("load orgin smtp setting fail");  // spelt as log readers know it
    return -1;
  }
  if (saveSMTPSetting() < 0) {
    LOG_ERROR("save smtp setting fail");
    return -1;
  }
  if (saveRelaySetting() < 0) {
    LOG_ERROR("save relay setting fail");
    return -1;
  }
  const bool loginMapHolds = previous._restrictSender &&
                             _accountType == previous._accountType &&
                             _accDomainName == previous._accDomainName;
  if (_restrictSender && !loginMapHolds &&
      KLIBCExec(paths::kGenLoginMap, nullptr, nullptr, nullptr, nullptr) < 0) {
    LOG_ERROR("fail to generate login map");
    return -1;
  }
  if (_enableSMTP != previous._enableSMTP) action = _enableSMTP ? "start" : "stop";
  if (SetPostfixConfig() < 0) {
    LOG_ERROR("Fail to set postfix config");
    return -1;
  }
  const bool portsChanged =
      _smtpPort != previous._smtpPort || _smtpsPort != previous._smtpsPort;
  if (portsChanged && KESTFwRuleHup() < 0) {
    LOG_ERROR("firewall rule hup fail");
    return -1;
  }
  if (Service(action) < 0) {
    LOG_ERROR("Fail to %s postfix daemon", action);
    return -1;
  }
  if (ReceiveProtocol::Service("restart") < 0) {
    LOG_ERROR("fail to restart dovecot service");
    return -1;
  }
  return 0;
}

int SMTP::Service(const std::string &action) noexcept {
  return KLIBCExec(paths::kPostfixDaemon, action.c_str(), nullptr, nullptr, nullptr);
}

int SMTP::SetPostfixConfig() noexcept {
  return KLIBCExec(paths::kDaemonConfSet, "smtp", nullptr, nullptr, nullptr);
}
