// DNSBL: whether DNS blocklists are asked, and the list of their servers.
//
// The switch is a setting, the servers stand in two sections of "spamlist.conf";
// DaemonConfSet.sh makes Postfix's restrictions of both. Odd, and kept: loading adds to
// the list; of equal names only neighbours are merged on saving; the switch is written
// before the servers, and a failure in between leaves the old ones.

#include "spam_filter.h"

#include <new>

#include "internal/log.h"
#include "internal/paths.h"
#include "internal/settings_table.h"
#include "internal/text_file.h"
#include "smtp.h"

using internal::SettingsTable;

namespace {

using Servers = std::list<DNSBinfo>;

constexpr char kSwitch[] = "spam_dnsbl_enable";
constexpr char kRBLSection[] = "RBL server";
constexpr char kRHSBLSection[] = "RHSBL server";

}  // namespace

// ---- the one instance

DNSBL *DNSBL::_dnsbl = nullptr;

DNSBL::DNSBL() noexcept : _enableDNSBL(false) {}
DNSBL::~DNSBL() = default;

DNSBL *DNSBL::getInstance() noexcept {
  if (_dnsbl != nullptr) return _dnsbl;
  _dnsbl = new (std::nothrow) DNSBL;
  if (_dnsbl == nullptr) {
    LOG_ERROR("Out of memory");
    return nullptr;
  }
  if (_dnsbl->loadSettings() == 0) return _dnsbl;
  delete _dnsbl;
  _dnsbl = nullptr;
  return nullptr;
}

// ---- the list in memory

bool DNSBL::isDNSBLEnabled() const noexcept { return _enableDNSBL; }
void DNSBL::setEnableDNSBL(bool enabled) noexcept { _enableDNSBL = enabled; }

Servers DNSBL::getDNSBList() const noexcept try {
  return _dnsbList;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return {};
}

void DNSBL::setDNSBList(const Servers &servers) noexcept try {
  Servers copy = servers;
  _dnsbList.swap(copy);
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
}

void DNSBL::addDNSBList(const Servers &servers) noexcept try {
  Servers copy = servers;
  _dnsbList.splice(_dnsbList.end(), copy);
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
}

void DNSBL::delDNSBList(const Servers &servers) noexcept {
  for (const DNSBinfo &server : servers) _dnsbList.remove(server);
}

// ---- reading

namespace {

// Adds the servers of a section of the file. 0 or -1.
int readServers(const char *section, DNSBType type, Servers *servers) {
  std::list<std::string> names;
  if (GetSectionContent(paths::kBlocklists, section, names) < 0) return -1;
  for (const std::string &name : names) servers->push_back({name, type});
  return 0;
}

}  // namespace

int DNSBL::loadSettings() noexcept {
  SettingsTable table;
  if (!table.isAllocated()) {
    LOG_ERROR("Out of memory");
    return -1;
  }
  if (table.readFile() < 0) {
    LOG_ERROR("KLIBCFileGetPair fail");
    return -1;
  }
  table.get(kSwitch, _enableDNSBL);
  if (loadDNSBList() < 0) {
    LOG_ERROR("loadWhiteList fail");  // log readers match this text
    return -1;
  }
  return 0;
}

int DNSBL::loadDNSBList() noexcept try {
  if (readServers(kRBLSection, RBL, &_dnsbList) < 0) {
    LOG_ERROR("GetSectionContent SZ_SPAM_LIST_RBL_SERVER fail");
    return -1;
  }
  if (readServers(kRHSBLSection, RHSBL, &_dnsbList) < 0) {
    LOG_ERROR("GetSectionContent SZ_SPAM_LIST_RHSBL_SERVER fail");
    return -1;
  }
  return 0;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

// ---- writing

namespace {

// The names of one type in their order, each once where it repeats the one before.
std::list<std::string> namesOf(const Servers &servers, DNSBType type) {
  std::list<std::string> names;
  for (const DNSBinfo &server : servers)
    if (server.type == type) names.push_back(server.strServerName);
  names.unique();
  return names;
}

void writeSection(const char *section, const std::list<std::string> &names,
                  internal::TextFile *file) {
  file->print("[%s]\n", section);
  for (const std::string &name : names) file->print("%s\n", name.c_str());
}

}  // namespace

int DNSBL::saveDNSBList() const noexcept try {
  // all that needs memory comes before the file is emptied
  const std::list<std::string> rbl = namesOf(_dnsbList, RBL);
  const std::list<std::string> rhsbl = namesOf(_dnsbList, RHSBL);
  internal::TextFile file(paths::kBlocklists, "w+e");
  if (!file.isOpen()) {
    LOG_ERROR("open SZ_SPAM_FILTER_LIST fail");
    return -1;
  }
  writeSection(kRBLSection, rbl, &file);
  writeSection(kRHSBLSection, rhsbl, &file);
  if (!file.finish()) {
    LOG_ERROR("write file %s fail", paths::kBlocklists);
    return -1;
  }
  return 0;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

int DNSBL::applySettings() noexcept {
  SMTP smtp;
  SettingsTable table;
  if (!table.isAllocated()) {
    LOG_ERROR("Out of memory");
    return -1;
  }
  table.set(kSwitch, _enableDNSBL);
  if (table.writeFile() < 0) {
    LOG_ERROR("KLIBCFileSetKeys fail");
    return -1;
  }
  if (saveDNSBList() < 0) {
    LOG_ERROR("saveSpamList fail");
    return -1;
  }
  if (smtp.load() < 0) {
    LOG_ERROR("load smtp fail");
    return -1;
  }
  // a Postfix that is off takes the lists up when it is turned on
  if (smtp.isEnabled() && SMTP::SetPostfixConfig() < 0) {
    LOG_ERROR("fail to gen postfix config");
    return -1;
  }
  return 0;
}
