// The host's firewall. This system brings none: whoever runs one puts a hook in
// place.

#include "kestsdk.h"

namespace {
constexpr char kHook[] = "/usr/kest/etc/firewall-reload";
}

int KESTFwRuleHup(void) {
  if (!KLIBCFileExist(kHook)) return 0;
  return KLIBCExec(kHook, nullptr, nullptr, nullptr, nullptr);
}
