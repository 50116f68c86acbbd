// The fixed places at which the library finds files, scripts and programs. They
// are part of the package's layout, on every machine the same.

#ifndef POSTWELL_INTERNAL_PATHS_H_
#define POSTWELL_INTERNAL_PATHS_H_

namespace paths {

constexpr char kSettings[] = "/var/packages/Postwell/etc/postwell.conf";

constexpr char kAliasDB[] = "/var/packages/Postwell/etc/alias.db";

constexpr char kMailLogFolder[] = "/var/packages/Postwell/target/etc/maillog/";
constexpr char kMailLogDB[] = "/var/packages/Postwell/target/etc/maillog/maillog.db";
constexpr char kStatisticDB[] = "/var/packages/Postwell/etc/log_statistic.db";
constexpr char kMailLogSocket[] = "/var/run/maillog.sock";

// Read by the host's firewall.
constexpr char kPorts[] = "/usr/local/etc/services.d/postwell_port";
constexpr char kSambaConfig[] = "/usr/kest/etc/smb.conf";

constexpr char kDaemonConfSet[] =
    "/var/packages/Postwell/target/scripts/DaemonConfSet.sh";
constexpr char kDovecotDaemon[] =
    "/var/packages/Postwell/target/scripts/DovecotDaemon.sh";
constexpr char kPostfixDaemon[] =
    "/var/packages/Postwell/target/scripts/PostfixDaemon.sh";

constexpr char kGenLoginMap[] = "/var/packages/Postwell/target/bin/kest_gen_login_map";

}  // namespace paths

#endif  // POSTWELL_INTERNAL_PATHS_H_
