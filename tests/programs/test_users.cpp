// Users of the test's choice: takes the place of the host's own function in the
// generator. One name a line in /tmp/users-local and /tmp/users-directory; a
// missing file is a host that cannot list its users.

#include <kestsdk.h>

#include <fstream>
#include <string>

int KESTUserEnum(KLIBCSzList **list, int type) {
  std::ifstream in(type == KEST_USER_LOCAL ? "/tmp/users-local" : "/tmp/users-directory");
  if (!in) return -1;
  int count = 0;
  for (std::string name; std::getline(in, name); ++count)
    if (KLIBCSzListPush(list, name.c_str()) < 0) return -1;
  return count;
}
