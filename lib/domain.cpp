// Domain: the list of local mail domains, kept as one setting.
//
// The names stand in the settings file joined by ", "; DaemonConfSet.sh turns them
// into the destinations for which Postfix accepts mail. Only neighbours that are equal
// are merged on saving: the list is the administrator's, in his order.

#include "domain.h"

#include <new>

#include "internal/log.h"
#include "internal/paths.h"
#include "kestcore.h"
#include "postwell.h"

namespace {
constexpr char kKey[] = "canonical_domain";
constexpr char kSeparator[] = ", ";
}  // namespace

int Domain::load() noexcept try {
  char value[8224] = "";
  if (KLIBCFileGetKeyValue(paths::kSettings, kKey, value, sizeof value, 0) < 0) {
    LOG_ERROR("Fail to get Domain list");
    return -1;
  }
  domainList = StringSplit(value, kSeparator);
  return 0;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

int Domain::save() noexcept try {
  domainList.unique();
  const std::string value = StringJoin(domainList, kSeparator);
  // the host takes C text: of a name with a NUL inside it would keep a part only
  if (value.find('\0') != std::string::npos ||
      KLIBCFileSetKeyValue(paths::kSettings, kKey, value.c_str(), "%s=\"%s\"\n") < 0) {
    LOG_ERROR("Set Key SZK_DOMAIN fail");
    return -1;
  }
  if (KLIBCExec(paths::kDaemonConfSet, "smtp", nullptr, nullptr, nullptr) < 0) {
    LOG_ERROR("Fail to exec SZ_SET_DAEMON_CONF");
    return -1;
  }
  if (KLIBCExec(paths::kPostfixDaemon, "restart", nullptr, nullptr, nullptr) < 0) {
    LOG_ERROR("Fail to exec SZ_POSTFIX_DAEMON");
    return -1;
  }
  return 0;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

std::list<std::string> Domain::getDomain() const noexcept try {
  return domainList;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return {};
}

void Domain::setDomain(const std::list<std::string> &names) noexcept try {
  std::list<std::string> copy = names;
  domainList.swap(copy);
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
}

void Domain::addDomain(const std::string &name) noexcept try {
  domainList.push_back(name);
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
}

void Domain::addDomain(const std::list<std::string> &names) noexcept try {
  std::list<std::string> copy = names;
  domainList.splice(domainList.end(), copy);
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
}

void Domain::delDomain(const std::string &name) noexcept { domainList.remove(name); }

void Domain::delDomain(const std::list<std::string> &names) noexcept {
  for (const std::string &name : names) delDomain(name);
}
