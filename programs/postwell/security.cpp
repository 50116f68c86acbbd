// postwell security show|set|apply: which filters are on.
//
// The library reports success whatever happens. So what it stored is read back, and each
// step behind it is taken once more, for its result.

#include <unistd.h>

#include <array>
#include <iostream>
#include <string>
#include <vector>

#include "command.h"
#include "kestcore.h"
#include "nouns.h"
#include "protection.h"

namespace {

constexpr char kSettings[] = "/var/packages/Postwell/etc/postwell.conf";

// Whether the service that was asked for its status runs. Null where that is not known:
// the folders of some are closed to ordinary users.
Values runs(int (*service)(const char *)) {
  if (geteuid() != 0) return nullptr;
  return service("status") == 0;
}

Values describe(const Security &all) {
  return {{"spam", all.isEnableSpamassassin()},
          {"dnsbl", all.isEnableDNSBL()},
          {"anti_virus", all.isEnableAntiVirus()},
          {"clean_interval", all.getSpamCleanInterval()},
          {"spam_runs", runs(Spam::Service)},
          {"anti_virus_runs", runs(Security::AntiVirusService)},
          {"milters_run", runs(Security::MailScannerService)}};
}

// What is on and does not do its work, and what that does to mail.
void tellWhatIsDown(const Values &values) {
  const bool judges = values["spam"], examines = values["anti_virus"];
  std::vector<std::string> down;
  if (judges && values["spam_runs"] == false)
    down.emplace_back(
        "the spam filter is on, but spamd is not running: mail is accepted "
        "without being judged.");
  if (examines && values["anti_virus_runs"] == false)
    down.emplace_back(
        "the virus scanner is on, but clamd is not running: all mail waits "
        "at its senders.");
  if ((judges || examines) && values["milters_run"] == false)
    down.emplace_back(
        "a milter that shows mail to them is not running, with the same "
        "effect.");
  for (const std::string &text : down) tell(text);
  if (!down.empty()) tell("\"postwell security apply\" starts what is on.");
}

std::string yesOrNo(bool flag) { return flag ? "yes" : "no"; }

bool isStored(const std::string &key, const std::string &expected) {
  std::array<char, 64> value{};
  return KLIBCFileGetKeyValue(kSettings, key.c_str(), value.data(), value.size(), 0) >=
             0 &&
         value.data() == expected;
}

Failure notStored(const std::string &what, const std::string &reason) {
  return {kFailed, what + " could not be stored: " + reason +
                       "\nCorrect the cause and set them again."};
}

// The library stores in this order, and ends where something fails.
void expectStored(const Security &all) {
  if (!isStored("spam_enable", yesOrNo(all.isEnableSpamassassin())))
    throw notStored("the settings", "run as root; the system log tells more.");
  if (!isStored("anti_virus_enable", yesOrNo(all.isEnableAntiVirus())) ||
      !isStored("spam_clean_interval", std::to_string(all.getSpamCleanInterval())))
    throw notStored("all settings but that of the spam filter",
                    "the spam filter does not take its\n"
                    "settings, of which a line above tells, or the line "
                    "anti_virus_enable in\n" +
                        std::string(kSettings) + " is damaged.");
  if (!isStored("spam_dnsbl_enable", yesOrNo(all.isEnableDNSBL())))
    throw notStored("the switch of the blocklists", "the system log tells why.");
}

// Stores the blocklists once more, for the result.
void expectBlocklists() {
  if (blocklists().applySettings() == 0) return;
  configurePostfix();  // the last of its steps, which tells its own failure
  throw notStored("the blocklists",
                  "/var/packages/Postwell/etc/spamlist.conf cannot be written; the\n"
                  "system log tells why. Compare \"postwell dnsbl list\" with what "
                  "should be there.");
}

void apply() {
  Security &all = security();
  all.applySettings();
  expectStored(all);
  configureSpamFilter();
  expectBlocklists();
  configureScanners();
  runFilters();
  std::cout << "Spam filter " << onOff(all.isEnableSpamassassin()) << ", DNS blocklists "
            << onOff(all.isEnableDNSBL()) << ", virus scanner "
            << onOff(all.isEnableAntiVirus()) << "; the daemons follow.\n";
}

}  // namespace

void addSecurity(CLI::App &app) {
  CLI::App &noun = addNoun(app, "security", "Which filters look at mail");
  addShow(
      noun, [] { return describe(security()); }, tellWhatIsDown);

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
