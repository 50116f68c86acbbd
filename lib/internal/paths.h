// The fixed places at which the library finds files, scripts and programs. They
// are part of the package's layout, on every machine the same.

#ifndef POSTWELL_INTERNAL_PATHS_H_
#define POSTWELL_INTERNAL_PATHS_H_

namespace paths {

constexpr char kSettings[] = "/var/packages/Postwell/etc/postwell.conf";

constexpr char kAliasDB[] = "/var/packages/Postwell/etc/alias.db";
constexpr char kRulesDB[] = "/var/packages/Postwell/etc/postwell.db";

constexpr char kMailLogFolder[] = "/var/packages/Postwell/target/etc/maillog/";
constexpr char kMailLogDB[] = "/var/packages/Postwell/target/etc/maillog/maillog.db";
constexpr char kStatisticDB[] = "/var/packages/Postwell/etc/log_statistic.db";
constexpr char kMailLogSocket[] = "/var/run/maillog.sock";

// The rule files of the spam filter: those that were imported, and those in force among
// its configuration.
constexpr char kImportedRules[] = "/var/packages/Postwell/etc/rules/";
constexpr char kActiveRules[] = "/var/packages/Postwell/target/etc/spamassassin/";

// The servers of the DNS blocklists.
constexpr char kBlocklists[] = "/var/packages/Postwell/etc/spamlist.conf";

// Read by the host's firewall.
constexpr char kPorts[] = "/usr/local/etc/services.d/postwell_port";
constexpr char kSambaConfig[] = "/usr/kest/etc/smb.conf";

constexpr char kDaemonConfSet[] =
    "/var/packages/Postwell/target/scripts/DaemonConfSet.sh";
constexpr char kDovecotDaemon[] =
    "/var/packages/Postwell/target/scripts/DovecotDaemon.sh";
constexpr char kPostfixDaemon[] =
    "/var/packages/Postwell/target/scripts/PostfixDaemon.sh";
constexpr char kSpamDaemon[] = "/var/packages/Postwell/target/scripts/SpamDaemon.sh";
constexpr char kMailScanner[] = "/var/packages/Postwell/target/scripts/MailScanner.sh";

constexpr char kAccessMap[] = "/var/packages/Postwell/target/bin/kest_access_map";
constexpr char kAntiVirus[] = "/var/packages/Postwell/target/bin/kest_anti-virus";
constexpr char kBccMap[] = "/var/packages/Postwell/target/bin/kest_bcc_map";
constexpr char kSpamBlackWhite[] =
    "/var/packages/Postwell/target/bin/kest_spam_blackwhite";
constexpr char kGenLoginMap[] = "/var/packages/Postwell/target/bin/kest_gen_login_map";

// Local users' home directories, a folder of the user's name each.
constexpr char kHomes[] = "/var/services/homes/";
// Named in a user's ".forward", which the mail system obeys.
constexpr char kVacation[] = "/var/packages/Postwell/target/bin/vacation";

constexpr char kCopy[] = "/bin/cp";

}  // namespace paths

#endif  // POSTWELL_INTERNAL_PATHS_H_
