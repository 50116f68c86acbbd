// The SMTP service (Postfix) and its outgoing relay.

#ifndef POSTWELL_SMTP_H_
#define POSTWELL_SMTP_H_

#include <string>

#include "postwell.h"

// The outgoing relay ("smart host"). Used through SMTP, which owns one.
class POSTWELL_API Relay {
 public:
  // Relay off, no host, port 0 (the relay's default), no password.
  Relay() noexcept;

  bool isRelayEnabled() const noexcept;
  const std::string &getRelayServer() const noexcept;
  int getRelayServerPort() const noexcept;
  bool isSecureConnEnabled() const noexcept;
  bool isRelayAuthEnabled() const noexcept;
  const std::string &getRelayAccount() const noexcept;

  // Setters change memory only. Memory running out leaves the field as it was.
  void setRelay(bool enabled) noexcept;
  void setRelayServerInfo(const std::string &server, int port) noexcept;
  void setSecureConn(bool enabled) noexcept;
  void setRelayAuthEnable(bool enabled) noexcept;
  void setRelayAccount(const std::string &account) noexcept;
  // The password in plain text, at most 215 bytes; a longer one makes the save
  // fail before anything is written. It has no getter.
  void setRelayPassword(const std::string &password) noexcept;

  // Reads the relay's keys; an absent key leaves its field. Returns 0, or -1
  // when the file cannot be read (nothing changed) or the stored password cannot
  // be decrypted (the fields before it have their new values).
  int loadSetting() noexcept;

  // Writes all seven keys, the password encrypted. Returns 0, or -1 with the
  // file as it was.
  int saveSetting() noexcept;

 private:
  bool _enableRelay;
  std::string _server;
  int _serverPort;
  bool _enableSecureConnect;
  bool _enableRelayAuth;
  std::string _relayAccount;
  std::string _relayPassword;  // plain text, in memory only
};

class POSTWELL_API SMTP {
 public:
  // The defaults: SMTP off, account type "local", authentication on, ports 25
  // and 465, a message size limit of 10.
  SMTP() noexcept;

  bool isEnabled() const noexcept;
  // Where accounts come from: "local", "ldap" or "win".
  const std::string &getAccountType() const noexcept;
  const std::string &getAccDomainName() const noexcept;
  bool isSMTPAuthEnabled() const noexcept;
  // Clients of the local network need not authenticate.
  bool isSMTPIgnoreAuth() const noexcept;
  const std::string &getHostName() const noexcept;
  int getSMTPPort() const noexcept;
  // In MB.
  int getMessageSizeLimit() const noexcept;
  // Who has authenticated may send only under an address of his own login.
  bool isRestrictSender() const noexcept;
  bool isEnabledSMTPS() const noexcept;
  int getSMTPsPort() const noexcept;

  bool isRelayEnabled() const noexcept;
  const std::string &getRelayServer() const noexcept;
  int getRelayServerPort() const noexcept;
  bool isRelayAuthEnabled() const noexcept;
  bool isSecureConnEnabled() const noexcept;
  const std::string &getRelayAccount() const noexcept;

  // Setters change memory only and check nothing. Memory running out leaves the
  // field as it was.
  void setSMTP(bool enabled) noexcept;
  void setAccountType(const std::string &type) noexcept;
  void setAccDomainName(const std::string &name) noexcept;
  void setSMTPAuth(bool enabled) noexcept;
  void setSMTPIgnoreAuth(bool enabled) noexcept;
  void setHostName(const std::string &name) noexcept;
  void setSMTPPort(int port) noexcept;
  void setMessageSizeLimit(int limit) noexcept;
  void setRestrictSender(bool enabled) noexcept;
  void setSMTPS(bool enabled) noexcept;
  void setSMTPsPort(int port) noexcept;

  void setRelay(bool enabled) noexcept;
  void setRelayServerInfo(const std::string &server, int port) noexcept;
  void setSecureConn(bool enabled) noexcept;
  void setRelayAuthEnable(bool enabled) noexcept;
  void setRelayAccount(const std::string &account) noexcept;
  void setRelayPassword(const std::string &password) noexcept;

  // Reads both groups, the relay's only when the first succeeded. Absent keys
  // leave their fields. Returns 0 or -1.
  int load() noexcept;

  // Writes both groups and the firewall's port file, regenerates the login map
  // when it is in force and what it depends on changed, regenerates Postfix's
  // configuration, reloads the firewall when a port changed, starts, stops or
  // restarts Postfix and restarts Dovecot. Returns 0, or -1 at the first step
  // that fails; what was done before it stays done. Saving again compares with what
  // the failed save wrote: steps that only a change causes do not run again.
  int save() noexcept;

  // The two halves of load() and the writing half of save(), which touch no
  // daemon. Return 0 or -1; a failed write leaves the settings file as it was.
  int loadSMTPSetting() noexcept;
  int saveSMTPSetting() noexcept;
  int loadRelaySetting() noexcept;
  int saveRelaySetting() noexcept;

  // Runs Postfix's service script with "start", "stop" or "restart" and waits.
  // Returns 0, or a negative value.
  static int Service(const std::string &action) noexcept;

  // Regenerates Postfix's configuration from the settings file. Returns 0, or a
  // negative value.
  static int SetPostfixConfig() noexcept;

 private:
  bool _enableSMTP;
  std::string _accountType;
  std::string _accDomainName;
  bool _enableSMTPAuth;
  bool _SMTPIgnoreAuth;
  std::string _hostName;
  int _smtpPort;
  int _messageSizeLimit;
  bool _restrictSender;
  bool _enableSMTPS;
  int _smtpsPort;
  Relay _relay;
};

#endif  // POSTWELL_SMTP_H_
