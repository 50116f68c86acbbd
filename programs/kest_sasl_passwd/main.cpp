// kest_sasl_passwd NEXTHOP: prints the line of Postfix's password table that
// belongs to the relay, "NEXTHOP account:password".
//
// The configuration script writes the line into the table that only root reads.
// The library never hands the relay's password out, so this program alone reads
// it, by the host's own functions. It is told the next hop because the lookup
// only succeeds when it is spelt exactly as in Postfix's "relayhost".
//
// Nothing reaches standard output unless the whole line is sound, and the
// password goes nowhere else: not into a message, not into the log.
//
// Exit status: 0 printed, 1 refused or failed, 2 wrong usage.

#include <kestcore.h>
#include <string.h>

#include <charconv>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>

#include "common/host_name.h"
#include "common/relay_login.h"
#include "common/standard_streams.h"
#include "common/text.h"

namespace {

constexpr char kSettingsFile[] = "/var/packages/Postwell/etc/postwell.conf";
constexpr char kProgram[] = "kest_sasl_passwd";

struct Login {
  std::string account;
  std::string password;
  ~Login() { explicit_bzero(password.data(), password.size()); }
};

int fail(const std::string &message) {
  std::cerr << kProgram << ": " << message << '\n';
  return 1;
}

bool isPort(const std::string &text) {
  unsigned port = 0;
  const char *const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, port);
  return error == std::errc() && stop == end && port >= 1 && port <= 65535;
}

// "[host]" or "[host]:port".
bool isNextHop(const std::string &text) {
  const size_t close = text.find(']');
  if (close == std::string::npos || text.front() != '[') return false;
  const std::string host = text.substr(1, close - 1);
  const std::string rest = text.substr(close + 1);
  return (isHostName(host) || isAddress(host)) &&
         (rest.empty() || (rest.front() == ':' && isPort(rest.substr(1))));
}

// Reads the login from the settings file. Returns what went wrong, empty when
// nothing did.
std::string readLogin(Login *login) {
  KLIBCSzHash *table = KLIBCSzHashAlloc(1024);
  if (table == nullptr) return "out of memory";
  const int read = KLIBCFileGetPair(kSettingsFile, &table);  // may move the table
  const std::unique_ptr<KLIBCSzHash, void (*)(KLIBCSzHash *)> owner(table,
                                                                    KLIBCSzHashFree);
  if (read < 0)
    return std::string("cannot read ") + kSettingsFile +
           " (run as root; is the package installed?)";

  const char *const account = KLIBCSzHashGetValue(table, "smtp_relay_account");
  const char *const stored = KLIBCSzHashGetValue(table, "smtp_relay_password");
  login->account = account != nullptr ? account : "";
  char plain[4096] = "";
  if (stored != nullptr && KLIBCryptSzDecrypt(stored, plain, sizeof plain) == 0)
    return "the stored relay password cannot be decrypted; set it again "
           "(postwell relay set --password-stdin)";
  login->password = plain;
  explicit_bzero(plain, sizeof plain);
  return "";
}

std::string loginProblem(const Login &login) {
  if (login.account.empty())
    return "no relay account is set (postwell relay set --account …)";
  std::string problem = accountProblem(login.account);
  if (!problem.empty()) return "the relay account " + problem;
  if (login.password.empty())
    return "no relay password is set (postwell relay set --password-stdin)";
  problem = passwordProblem(login.password);
  return problem.empty() ? "" : "the relay password " + problem;
}

bool printLine(const std::string &nextHop, const Login &login) {
  const int printed = printf("%s %s:%s\n", nextHop.c_str(), login.account.c_str(),
                             login.password.c_str());
  return printed >= 0 && fflush(stdout) == 0;
}

int run(const std::string &nextHop) {
  if (!isNextHop(nextHop))
    return fail("not \"[host]\" or \"[host]:port\": " + printable(nextHop));
  Login login;
  std::string problem = readLogin(&login);
  if (problem.empty()) problem = loginProblem(login);
  if (!problem.empty()) return fail(problem);
  if (!printLine(nextHop, login)) return fail("cannot write the line to standard output");
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  keepStandardStreams();
  if (argc != 2) {
    std::cerr << "usage: " << kProgram
              << " NEXTHOP\n  NEXTHOP is \"[host]\" or \"[host]:port\"\n";
    return 2;
  }
  try {
    return run(argv[1]);
  } catch (const std::exception &) {  // of the standard library: memory alone
    return fail("out of memory");
  }
}
