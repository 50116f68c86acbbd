#include "support/library_test.h"

#include <syslog.h>

#include <algorithm>
#include <regex>
#include <sstream>

#include "support/files.h"

namespace {

using Lines = std::vector<std::string>;

// How the expectations begin a line of this priority.
std::string mark(int priority) {
  if (priority == LOG_ERR) return "";
  return priority == LOG_DEBUG ? "debug " : "priority " + std::to_string(priority) + " ";
}

// "smtp.cpp:120 text" -> "smtp.cpp: text"; a line of another form stays as it is.
std::string withoutLineNumber(const LogLine &line) {
  static const std::regex form("^([A-Za-z_]+\\.(cpp|h)):[0-9]+ ([^]*)$");
  std::smatch match;
  if (!std::regex_match(line.text, match, form)) return mark(line.priority) + line.text;
  return mark(line.priority) + match[1].str() + ": " + match[3].str();
}

}  // namespace

void LibraryTest::expectLog(const Lines &expected) {
  Lines found;
  for (const LogLine &line : log.take()) found.push_back(withoutLineNumber(line));
  EXPECT_EQ(found, expected);
}

Lines LibraryTest::callsOf(const Lines &functions) {
  Lines kept;
  for (const std::string &call : platform::takeCalls()) {
    const std::string name = call.substr(0, call.find(' '));
    if (std::find(functions.begin(), functions.end(), name) != functions.end())
      kept.push_back(call);
  }
  return kept;
}

void LibraryTest::writeDefaults() {
  writeFile(
      PackageTree::kSettings,
      "pop3_enabled=\"no\"\npop3s_enabled=\"no\"\nimap_enabled=\"no\"\n"
      "imaps_enabled=\"no\"\nsmtp_enabled=\"no\"\naccount_type=\"local\"\n"
      "acc_domain_name=\"\"\nwin_domain_short_name=\"\"\nsmtp_auth_enabled=\"yes\"\n"
      "smtp_ignore_lan_auth=\"no\"\nsmtp_hostname=\"\"\nsmtp_port=\"25\"\n"
      "message_limit=\"10\"\nrestrict_sender=\"no\"\nsmtp_ssl_enabled=\"no\"\n"
      "smtps_port=\"465\"\nsmtp_relay_enabled=\"no\"\nsmtp_relay_server=\"\"\n"
      "smtp_relay_server_port=\"0\"\nsmtp_relay_secure_conn=\"no\"\n"
      "smtp_relay_auth_enabled=\"no\"\nsmtp_relay_account=\"\"\n"
      "smtp_relay_password=\"\"\nspam_enable=\"no\"\ncanonical_domain=\"\"\n");
}

std::string LibraryTest::stored(const std::string &key) {
  std::istringstream in(readFile(PackageTree::kSettings));
  const std::string start = key + "=\"";
  std::string value = "(absent)";
  for (std::string line; std::getline(in, line);)
    if (line.compare(0, start.size(), start) == 0)
      value = line.substr(start.size(), line.rfind('"') - start.size());
  return value;
}
