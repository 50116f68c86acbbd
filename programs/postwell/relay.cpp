// postwell relay show|set: the outgoing relay.
//
// The password comes from standard input or a file, never from the command line,
// which every user of the machine can read; and it is never shown.

#include <string.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <memory>
#include <optional>

#include "command.h"
#include "common/host_name.h"
#include "common/relay_login.h"
#include "common/text.h"
#include "nouns.h"
#include "smtp.h"

namespace {

Values describe(const SMTP &smtp) {
  return {{"enabled", smtp.isRelayEnabled()},  {"server", smtp.getRelayServer()},
          {"port", smtp.getRelayServerPort()}, {"tls", smtp.isSecureConnEnabled()},
          {"auth", smtp.isRelayAuthEnabled()}, {"account", smtp.getRelayAccount()}};
}

// Both groups, since a save writes both. False when the relay's password could
// not be decrypted; everything else is read then.
bool readSettings(SMTP &smtp) {
  if (smtp.loadSMTPSetting() != 0) throw settingsUnreadable();
  return smtp.loadRelaySetting() == 0;
}

Values readValues() {
  SMTP smtp;
  readSettings(smtp);  // the password is not shown, so its loss does not matter
  return describe(smtp);
}

// Where the new password comes from. Neither option: the old one stays.
struct PasswordOptions {
  const CLI::Option *fromStdin;
  const CLI::Option *fromFile;
};

// One line end goes; whatever else the text holds is for the rule to judge.
void stripLineEnd(std::string &text) {
  if (!text.empty() && text.back() == '\n') text.pop_back();
  if (!text.empty() && text.back() == '\r') text.pop_back();
}

std::string readPassword(std::FILE *in, const std::string &name) {
  char buffer[1024];  // more than any password that is accepted
  const size_t size = in != nullptr ? fread(buffer, 1, sizeof buffer, in) : 0;
  if (in == nullptr || ferror(in) != 0)
    throw Failure(kFailed, "cannot read the password from " + printable(name));
  std::string password(buffer, size);
  explicit_bzero(buffer, sizeof buffer);
  stripLineEnd(password);
  const std::string problem = passwordProblem(password);
  if (!problem.empty()) throw Failure(kWrongUsage, "the password " + problem);
  return password;
}

std::optional<std::string> newPassword(const PasswordOptions &options) {
  if (options.fromStdin->count() > 0) {
    if (isatty(STDIN_FILENO) != 0)  // typing would show it
      throw Failure(kWrongUsage,
                    "--password-stdin: pipe the password in; a terminal shows it");
    return readPassword(stdin, "standard input");
  }
  if (options.fromFile->count() == 0) return std::nullopt;
  const auto name = options.fromFile->as<std::string>();
  const std::unique_ptr<std::FILE, int (*)(std::FILE *)> file(fopen(name.c_str(), "re"),
                                                              fclose);
  return readPassword(file.get(), name);
}

void checkWhole(const SMTP &smtp) {
  if (smtp.isRelayEnabled() && smtp.getRelayServer().empty())
    throw Failure(kWrongUsage,
                  "a relay that is on needs a server; name it with --server");
  if (smtp.isRelayAuthEnabled() && smtp.getRelayAccount().empty())
    throw Failure(kWrongUsage, "authentication needs an account; name it with --account");
}

void confirm(const SMTP &smtp) {
  std::cout << "Relay " << onOff(smtp.isRelayEnabled());
  if (smtp.isRelayEnabled()) {
    std::cout << ", server " << printable(smtp.getRelayServer());
    if (smtp.getRelayServerPort() != 0)
      std::cout << " port " << smtp.getRelayServerPort();
    std::cout << ", TLS " << onOff(smtp.isSecureConnEnabled());
    if (smtp.isRelayAuthEnabled())
      std::cout << ", account " << printable(smtp.getRelayAccount());
  }
  std::cout << "; Postfix and Dovecot follow.\n";
}

void runSet(const SetCommand<SMTP> &set, const PasswordOptions &options) {
  const std::optional<std::string> password = newPassword(options);
  SMTP smtp;
  const bool decrypted = readSettings(smtp);
  if (!decrypted && !password) throw relayPasswordLost();
  set.apply(smtp);
  if (password) smtp.setRelayPassword(*password);
  checkWhole(smtp);
  // SMTP::save() reads the old settings first and would meet the lost password.
  const bool readable = decrypted || smtp.saveRelaySetting() == 0;
  if (!readable || smtp.save() != 0) throw saveFailed(readValues() == describe(smtp));
  confirm(smtp);
}

// The setters of server and port are one; each option keeps the other's value.
void setServer(SMTP &smtp, const std::string &server) {
  smtp.setRelayServerInfo(server, smtp.getRelayServerPort());
}

void setPort(SMTP &smtp, int port) {
  smtp.setRelayServerInfo(std::string(smtp.getRelayServer()), port);
}

}  // namespace

void addRelay(CLI::App &app) {
  CLI::App &noun = addNoun(app, "relay", "The outgoing relay (smart host)");
  addShow(noun, readValues);

  SetCommand<SMTP> set(noun);
  set.option<bool>("--enabled", "Whether mail goes out through the relay", yesNo(),
                   &SMTP::setRelay);
  set.option<std::string>("--server", "The relay's name or address", relayServer(),
                          setServer);
  set.option<int>("--port", "Its port, 0 for the default", wholeNumber(0, 65535),
                  setPort);
  set.option<bool>("--tls", "Insist on TLS", yesNo(), &SMTP::setSecureConn);
  set.option<bool>("--auth", "Authenticate at the relay", yesNo(),
                   &SMTP::setRelayAuthEnable);
  set.option<std::string>("--account", "The account there", relayAccount(),
                          &SMTP::setRelayAccount);
  CLI::Option *const fromStdin = set.command()->add_flag(
      "--password-stdin", "Read the password from standard input");
  CLI::Option *const fromFile =
      set.command()->add_option("--password-file", "Read the password from a file");
  fromFile->type_name("FILE")->excludes(fromStdin);
  set.callback(
      [set, options = PasswordOptions{fromStdin, fromFile}] { runSet(set, options); });
}
