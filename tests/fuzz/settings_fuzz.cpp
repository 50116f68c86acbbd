// Anything at all as the settings file: what is read must be what a plain reading of the
// bytes gives, what is set must be read back, and no other line may change.
//
// The key that is set and its value follow the file after lines "=".

#include <kestcore.h>
#include <smtp.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "fuzz.h"

namespace {

constexpr char kFile[] = "/var/packages/Postwell/etc/postwell.conf";
constexpr auto npos = std::string::npos;

using Pair = std::pair<std::string, std::string>;
using Values = std::map<std::string, std::string>;

// ---- the plain reading

std::optional<Pair> pairOf(const std::string &line) {
  const size_t equals = line.find('=');
  if (equals == npos || line.find('\0') != npos) return std::nullopt;
  const std::string key = trimmed(line.substr(0, equals));
  const auto value = quotedIn(line.substr(equals));
  if (!isKey(key) || !value) return std::nullopt;
  return Pair(key, *value);
}

Values valuesOf(const std::string &text) {
  Values values;
  for (const std::string &line : linesOf(text))
    if (const auto pair = pairOf(line)) values[pair->first] = pair->second;
  return values;
}

// The lines that are not of these keys.
std::string withoutKeys(const std::string &text, const Values &keys) {
  std::string others;
  for (const std::string &line : linesOf(text)) {
    const auto pair = pairOf(line);
    if (!pair || keys.count(pair->first) == 0) others += line;
  }
  return others;
}

// ---- the host's functions

void checkReading(const std::string &text) {
  std::vector<std::string> lines = linesOf(text);
  const auto count = std::count_if(lines.begin(), lines.end(),
                                   [](const auto &line) { return pairOf(line); });
  KLIBCSzHash *table = KLIBCSzHashAlloc(1);
  expect(KLIBCFileGetPair(kFile, &table) == count, "a line is read, or is not");
  for (const auto &[key, value] : valuesOf(text)) {
    const char *const found = KLIBCSzHashGetValue(table, key.c_str());
    expect(found != nullptr && found == value, "a value differs");
  }
  KLIBCSzHashFree(table);
}

void checkOne(const std::string &key, const std::string &value) {
  char buffer[16];
  const int length = KLIBCFileGetKeyValue(kFile, key.c_str(), buffer, sizeof buffer, 0);
  const bool fits = value.size() < sizeof buffer && !key.empty();
  expect(fits ? length == static_cast<int>(value.size()) && buffer == value
              : length < 0 && buffer[0] == '\0',
         "one value differs");
}

// The lines of the key are replaced where they stand, or one is added at the end.
std::string withKey(const std::string &text, const std::string &key,
                    const std::string &value) {
  const std::string fresh = key + "=\"" + value + "\"\n";
  std::string changed;
  for (const std::string &line : linesOf(text)) {
    const auto pair = pairOf(line);
    changed += pair && pair->first == key ? fresh : line;
  }
  if (valuesOf(text).count(key) != 0) return changed;
  if (!changed.empty() && changed.back() != '\n') changed += '\n';
  return changed + fresh;
}

void checkSetting(const std::string &text, const std::string &key,
                  const std::string &value) {
  const bool taken = isKey(key) && value.find('\n') == npos;
  const int result = KLIBCFileSetKeyValue(kFile, key.c_str(), value.c_str(), nullptr);
  expect(result == (taken ? 0 : -1), "a value is taken, or is not");
  const std::string changed = readWhole(kFile);
  expect(changed == (taken ? withKey(text, key, value) : text), "the file differs");
  if (taken) checkOne(key, value);
}

// ---- the library

auto stateOf(const SMTP &smtp) {
  return std::tuple(smtp.isEnabled(), smtp.getAccountType(), smtp.getAccDomainName(),
                    smtp.isSMTPAuthEnabled(), smtp.isSMTPIgnoreAuth(), smtp.getHostName(),
                    smtp.getSMTPPort(), smtp.getMessageSizeLimit(),
                    smtp.isRestrictSender(), smtp.isEnabledSMTPS(), smtp.getSMTPsPort(),
                    smtp.isRelayEnabled(), smtp.getRelayServer(),
                    smtp.getRelayServerPort(), smtp.isSecureConnEnabled(),
                    smtp.isRelayAuthEnabled(), smtp.getRelayAccount());
}

void checkText(const Values &values, const std::string &key, const std::string &field,
               const std::string &otherwise) {
  const auto found = values.find(key);
  expect(field == (found == values.end() ? otherwise : found->second), key + " differs");
}

void checkFlag(const Values &values, const std::string &key, bool field, bool otherwise) {
  const auto found = values.find(key);
  expect(field == (found == values.end() ? otherwise : found->second == "yes"),
         key + " differs");
}

void checkFields(Values values, const SMTP &smtp) {
  if (values.count("account_type") != 0 && values["account_type"].empty())
    values["account_type"] = "local";
  checkFlag(values, "smtp_enabled", smtp.isEnabled(), false);
  checkText(values, "account_type", smtp.getAccountType(), "local");
  checkText(values, "acc_domain_name", smtp.getAccDomainName(), "");
  checkFlag(values, "smtp_auth_enabled", smtp.isSMTPAuthEnabled(), true);
  checkText(values, "smtp_hostname", smtp.getHostName(), "");
  checkFlag(values, "smtp_relay_enabled", smtp.isRelayEnabled(), false);
  checkText(values, "smtp_relay_server", smtp.getRelayServer(), "");
  checkText(values, "smtp_relay_account", smtp.getRelayAccount(), "");
}

// What is loaded and saved is loaded again, and the keys of others stay as they are.
void checkGroup(const std::string &text) {
  Values own;
  for (const char *key :
       {"smtp_enabled", "account_type", "acc_domain_name", "win_domain_short_name",
        "smtp_auth_enabled", "smtp_ignore_lan_auth", "smtp_hostname", "smtp_port",
        "message_limit", "restrict_sender", "smtp_ssl_enabled", "smtps_port",
        "smtp_relay_enabled", "smtp_relay_server", "smtp_relay_server_port",
        "smtp_relay_secure_conn", "smtp_relay_auth_enabled", "smtp_relay_account",
        "smtp_relay_password"})
    own[key];
  SMTP smtp, again;
  expect(smtp.loadSMTPSetting() == 0, "the settings cannot be read");
  (void)smtp.loadRelaySetting();  // fails at a password that was not stored here
  checkFields(valuesOf(text), smtp);
  expect(smtp.saveSMTPSetting() == 0 && smtp.saveRelaySetting() == 0,
         "the settings cannot be written");
  expect(again.load() == 0 && stateOf(again) == stateOf(smtp),
         "what is saved is not read back");
  // A line that is added does not go on with the last one.
  const std::string others = withoutKeys(text, own);
  const Values before = valuesOf(text);
  const bool isAdding = std::any_of(own.begin(), own.end(), [&before](const auto &pair) {
    return before.count(pair.first) == 0;
  });
  const bool isCut = !others.empty() && others.back() != '\n';
  expect(withoutKeys(readWhole(kFile), own) == others + (isCut && isAdding ? "\n" : ""),
         "another line has changed");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::vector<std::string> parts = partsOf(data, size);
  const std::string &text = parts[0];
  const std::string key = parts.size() > 1 ? wordOf(parts[1]) : "smtp_port";
  const std::string value = parts.size() > 2 ? wordOf(parts[2]) : "25";
  writeWhole(kFile, text);
  checkReading(text);
  checkOne(key, valuesOf(text)[key]);
  checkSetting(text, key, value);
  writeWhole(kFile, text);
  checkGroup(text);
  return 0;
}
