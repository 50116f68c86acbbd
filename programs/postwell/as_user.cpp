// Root's rights are given up for good, and before anything of the user's is looked at.

#include "as_user.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "command.h"
#include "common/text.h"

void becomeUser(const std::string &user) {
  const passwd *const account = getpwnam(user.c_str());
  if (account == nullptr) throw Failure(kFailed, "there is no user " + inQuotes(user));
  const uid_t uid = account->pw_uid;
  const gid_t gid = account->pw_gid;
  if (uid == 0)
    throw Failure(kFailed, inQuotes(user) +
                               " has all rights, and so would what its mail starts;\n"
                               "mail for it goes where an alias says");
  umask(077);
  if (geteuid() == uid) return;
  if (geteuid() != 0)
    throw Failure(kFailed, "only root may see or change the settings of other users");
  if (initgroups(account->pw_name, gid) != 0 || setresgid(gid, gid, gid) != 0 ||
      setresuid(uid, uid, uid) != 0)
    throw Failure(kFailed,
                  "cannot act as user " + inQuotes(user) + ": " + std::strerror(errno));
}
