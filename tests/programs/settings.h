// A settings file for the tests of the programs, and what became of it.

#ifndef POSTWELL_TESTS_SETTINGS_H_
#define POSTWELL_TESTS_SETTINGS_H_

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>

#include "programs/run_program.h"
#include "support/files.h"
#include "support/package_tree.h"

// Every value differs from what a fresh object would hold, so that one that was
// not read, or not kept, is noticed.
inline const std::string kSomeSettings =
    "# kept by hand\n"
    "pop3_enabled=\"yes\"\n"
    "pop3s_enabled=\"no\"\n"
    "imap_enabled=\"yes\"\n"
    "imaps_enabled=\"no\"\n"
    "smtp_enabled=\"yes\"\n"
    "account_type=\"ldap\"\n"
    "acc_domain_name=\"corp.example\"\n"
    "win_domain_short_name=\"\"\n"
    "smtp_auth_enabled=\"no\"\n"
    "smtp_ignore_lan_auth=\"yes\"\n"
    "smtp_hostname=\"mail.example.org\"\n"
    "smtp_port=\"2525\"\n"
    "message_limit=\"20\"\n"
    "restrict_sender=\"yes\"\n"
    "smtp_ssl_enabled=\"yes\"\n"
    "smtps_port=\"4650\"\n"
    "smtp_relay_enabled=\"yes\"\n"
    "smtp_relay_server=\"relay.example.org\"\n"
    "smtp_relay_server_port=\"587\"\n"
    "smtp_relay_secure_conn=\"yes\"\n"
    "smtp_relay_auth_enabled=\"yes\"\n"
    "smtp_relay_account=\"bob\"\n"
    "smtp_relay_password=\"\"\n"
    "spam_clean_interval=\"30\"\n";

// The file's lines by key; a comment's key is the whole line.
inline std::map<std::string, std::string> settingsNow() {
  std::map<std::string, std::string> settings;
  std::istringstream in(readFile(PackageTree::kSettings));
  for (std::string line; std::getline(in, line);) {
    const size_t equals = line.find('=');
    settings[line.substr(0, equals)] =
        equals == std::string::npos ? "" : line.substr(equals + 1);
  }
  return settings;
}

// The keys whose lines are no longer as they were. The stored password does not
// count: the same one is encrypted to another text each time.
inline std::map<std::string, std::string> changedSince(
    const std::map<std::string, std::string> &before) {
  std::map<std::string, std::string> changed;
  const auto now = settingsNow();
  for (const auto &[key, value] : now) {
    const auto old = before.find(key);
    if (key != "smtp_relay_password" && (old == before.end() || old->second != value))
      changed[key] = value;
  }
  for (const auto &[key, value] : before)
    if (now.count(key) == 0) changed[key] = "(gone)";
  return changed;
}

// The settings with one value put in the place of another, as a text editor would.
inline void writeSettingsWith(const std::string &key, const std::string &value) {
  std::string text = kSomeSettings;
  const size_t start = text.find("\n" + key + "=") + 1;
  text.replace(start, text.find('\n', start) - start, key + "=\"" + value + "\"");
  writeFile(PackageTree::kSettings, text);
}

// A command that found no settings file, or none that it may read.
inline void expectNoSettings(const Outcome &outcome) {
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err,
            "postwell: cannot read /var/packages/Postwell/etc/postwell.conf.\n"
            "Run as root. If the file is missing, install the package again, or copy\n"
            "/var/packages/Postwell/target/etc/postwell.conf.default to its place.\n");
}

#endif  // POSTWELL_TESTS_SETTINGS_H_
