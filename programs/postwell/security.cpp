// postwell security show|set|apply: which filters are on.
//
// The library reports success whatever happens. So what it stored is read back, and each
// step behind it is taken once more, for its result.

#include <array>
#include <iostream>
#include <map>

#include "command.h"
#include "kestcore.h"
#include "nouns.h"
#include "protection.h"

namespace {

constexpr char kSettings[] = "/var/packages/Postwell/etc/postwell.conf";

Values describe(const Security &all) {
  return {{"spam", all.isEnableSpamassassin()},
          {"dnsbl", all.isEnableDNSBL()},
          {"anti_virus", all.isEnableAntiVirus()},
          {"clean_interval", all.getSpamCleanInterval()}};
}

std::string yesOrNo(bool flag) { return flag ? "yes" : "no"; }

std::string storedValue(const std::string &key) {
  std::array<char, 64> value{};
  const int length =
      KLIBCFileGetKeyValue(kSettings, key.c_str(), value.data(), value.size(), 0);
  return length < 0 ? "" : value.data();
}

void expectStored(const Security &all) {
  const std::map<std::string, std::string> settings = {
      {"spam_enable", yesOrNo(all.isEnableSpamassassin())},
      {"anti_virus_enable", yesOrNo(all.isEnableAntiVirus())},
      {"spam_clean_interval", std::to_string(all.getSpamCleanInterval())},
      {"spam_dnsbl_enable", yesOrNo(all.isEnableDNSBL())}};
  for (const auto &[key, value] : settings)
    if (storedValue(key) != value) throw saveFailed(false);
}

void apply() {
  Security &all = security();
  all.applySettings();
  expectStored(all);
  configureSpamFilter();
  configurePostfix();
  configureScanners();
  runFilters();
  std::cout << "Spam filter " << onOff(all.isEnableSpamassassin()) << ", DNS blocklists "
            << onOff(all.isEnableDNSBL()) << ", virus scanner "
            << onOff(all.isEnableAntiVirus()) << "; the daemons follow.\n";
}

}  // namespace

void addSecurity(CLI::App &app) {
  CLI::App &noun = addNoun(app, "security", "Which filters look at mail");
  addShow(noun, [] { return describe(security()); });

  SetCommand<Security> set(noun);
  set.option<bool>("--spam", "The spam filter", yesNo(),
                   &Security::setEnableSpamassassin);
  set.option<bool>("--dnsbl", "The blocklists in the DNS", yesNo(),
                   &Security::setEnableDNSBL);
  set.option<bool>("--anti-virus", "The virus scanner", yesNo(),
                   &Security::setEnableAntiVirus);
  set.option<int>("--clean-interval", "The days for which spam is kept, 0 for ever",
                  wholeNumber(0, 9999), &Security::setSpamCleanInterval);
  set.callback([set] {
    set.apply(security());
    apply();
  });
  noun.add_subcommand("apply", "Make the daemons follow the stored settings")
      ->callback(apply);
}
