// The domains that Postfix delivers to mailboxes of this machine, by its settings.

#include "common/local_domains.h"

#include <domain.h>
#include <smtp.h>
#include <unistd.h>

#include <set>
#include <stdexcept>

#include "common/host_name.h"
#include "common/text.h"

namespace {

// Postfix's own rule for a server without a configured name.
std::string machineName() {
  char name[256] = "";
  if (gethostname(name, sizeof name - 1) != 0) return "localhost.localdomain";
  const std::string found = name;
  return found.find('.') == std::string::npos ? found + ".localdomain" : found;
}

}  // namespace

std::vector<std::string> localDomains() {
  SMTP settings;
  Domain list;
  if (settings.loadSMTPSetting() != 0 || list.load() != 0)
    throw std::runtime_error("cannot read the settings (run as root)");
  const std::string host = settings.getHostName();
  std::set<std::string> domains = {"localhost",
                                   lowerCase(host.empty() ? machineName() : host)};
  for (const std::string &name : list.getDomain())
    if (isHostName(name)) domains.insert(lowerCase(name));
  return {domains.begin(), domains.end()};
}
