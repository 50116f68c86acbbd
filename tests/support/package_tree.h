// The package's scripts and programs as a test wants them: each is replaced by
// a recorder that notes how it was called and exits as told.

#ifndef POSTWELL_TESTS_PACKAGE_TREE_H_
#define POSTWELL_TESTS_PACKAGE_TREE_H_

#include <string>
#include <vector>

// An empty package at its real place in the private root, with recorders for the
// scripts and programs that the library runs. What a test before left is gone.
class PackageTree {
 public:
  PackageTree();

  // Makes the recorder "DaemonConfSet.sh", "kest_gen_login_map", … exit with
  // `status` from now on; with `argument` only when that is its first argument.
  void failScript(const std::string &name, int status = 1,
                  const std::string &argument = "");

  // The calls so far, oldest first, each "name argument…"; forgets them.
  std::vector<std::string> takeCalls();

  static constexpr char kSettings[] = "/var/packages/Postwell/etc/postwell.conf";
  static constexpr char kPorts[] = "/usr/local/etc/services.d/postwell_port";
};

#endif  // POSTWELL_TESTS_PACKAGE_TREE_H_
