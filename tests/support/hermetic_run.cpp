// hermetic-run: runs a program in a private root in which the package's real
// absolute paths exist, are empty and are writable, and everything else is
// read-only. Nothing it writes outlives it, so tests use the paths that the
// library uses and still leave the machine alone.
//
//   hermetic-run [-k DIR]... [-s SIZE] [-i root|user] PROGRAM [ARGUMENT...]
//
//   -k DIR   also show DIR, writable (the build folder, a sysroot)
//   -s SIZE  size of the file system behind the private root (default 256m);
//            a small one shows what a full disk does
//   -i root  insist on running as root; -i user: become uid and gid 65534 first.
//            Without -i the caller's identity is kept.
//
// Exit status: the program's own; 125 when the private root cannot be had, 126
// when the program cannot be run. Root loses the capabilities that override
// file modes, so that modes mean something to it as well.
//
// The program is executed from one single-threaded launcher because a process
// with threads, an emulator among them, may not make itself a user namespace.

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <linux/mount.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using std::string;

const string kRoot = "/mnt";  // where the private root is put together

// Folders that exist empty and writable in the private root.
const char *const kWritable[] = {"/var/run",
                                 "/var/packages/Postwell/etc",
                                 "/var/packages/Postwell/target/scripts",
                                 "/var/packages/Postwell/target/bin",
                                 "/var/packages/Postwell/target/etc",
                                 "/var/services/homes",
                                 "/var/tmp",
                                 "/usr/local/etc/services.d",
                                 "/usr/kest/etc",
                                 "/tmp",
                                 "/run",
                                 "/dev/shm"};

[[noreturn]] void die(const string &what) {
  fprintf(stderr, "hermetic-run: %s: %s\n", what.c_str(), strerror(errno));
  exit(125);
}

void check(bool ok, const string &what) {
  if (!ok) die(what);
}

// Makes every folder on the way to `path`, owned by uid and gid.
void makeFolders(const string &path, uid_t uid, gid_t gid) {
  for (size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    const string folder = path.substr(0, end);
    if (mkdir(folder.c_str(), 0755) == 0)
      check(chown(folder.c_str(), uid, gid) == 0, "chown " + folder);
    else
      check(errno == EEXIST, "mkdir " + folder);
    if (end == string::npos) return;
  }
}

void writeFile(const char *path, const string &text) {
  const int fd = open(path, O_WRONLY | O_CLOEXEC);
  check(
      fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()),
      path);
  close(fd);
}

// Shows `from` at the same place of the private root.
void show(const string &from, bool writable) {
  struct stat st;
  if (lstat(from.c_str(), &st) != 0) return;
  const string to = kRoot + from;
  if (S_ISLNK(st.st_mode)) {
    char target[PATH_MAX];
    const ssize_t n = readlink(from.c_str(), target, sizeof target - 1);
    check(n > 0, "readlink " + from);
    target[n] = '\0';
    check(symlink(target, to.c_str()) == 0 || errno == EEXIST, "symlink " + to);
    return;
  }
  if (S_ISDIR(st.st_mode))
    makeFolders(to, geteuid(), getegid());
  else
    close(open(to.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
  check(mount(from.c_str(), to.c_str(), "", MS_BIND | MS_REC, "") == 0, "bind " + from);
  if (writable) return;
  struct mount_attr readOnly = {};
  readOnly.attr_set = MOUNT_ATTR_RDONLY;
  check(syscall(SYS_mount_setattr, AT_FDCWD, to.c_str(), AT_RECURSIVE, &readOnly,
                sizeof readOnly) == 0,
        "read-only " + from);
}

// Shows what `folder` holds, apart from the hidden paths.
void showChildren(const string &folder, const std::vector<string> &hidden) {
  DIR *dir = opendir(folder.c_str());
  check(dir != nullptr, folder);
  makeFolders(kRoot + folder, geteuid(), getegid());
  while (const dirent *entry = readdir(dir)) {
    const string name = entry->d_name;
    const string path = (folder == "/" ? "" : folder) + "/" + name;
    bool skip = name == "." || name == "..";
    for (const string &h : hidden) skip = skip || path == h;
    if (!skip) show(path, path == "/proc");
  }
  closedir(dir);
}

void enterNamespaces() {
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  check(unshare(uid == 0 ? CLONE_NEWNS : CLONE_NEWUSER | CLONE_NEWNS) == 0, "unshare");
  if (uid != 0) {
    writeFile("/proc/self/setgroups", "deny");
    writeFile("/proc/self/uid_map",
              std::to_string(uid) + " " + std::to_string(uid) + " 1");
    writeFile("/proc/self/gid_map",
              std::to_string(gid) + " " + std::to_string(gid) + " 1");
  }
  check(mount("none", "/", "", MS_REC | MS_PRIVATE, "") == 0, "private mounts");
}

// Pseudo-terminals of its own, for whoever asks.
void makeTerminals() {
  const string folder = kRoot + "/dev/pts";
  makeFolders(folder, geteuid(), getegid());
  check(mount("terminals", folder.c_str(), "devpts", MS_NOSUID | MS_NOEXEC,
              "newinstance,ptmxmode=0666,mode=600") == 0,
        "devpts");
  check(symlink("pts/ptmx", (kRoot + "/dev/ptmx").c_str()) == 0, "/dev/ptmx");
}

void buildRoot(const string &size, const std::vector<string> &keep, uid_t owner,
               gid_t group) {
  const string options = "mode=755,size=" + size;
  check(mount("hermetic", kRoot.c_str(), "tmpfs", MS_NOSUID | MS_NODEV,
              options.c_str()) == 0,
        "tmpfs");
  check(chown(kRoot.c_str(), owner, group) == 0, "chown root");
  showChildren("/", {"/var", "/tmp", "/run", "/dev", "/usr", "/mnt", "/lost+found"});
  showChildren("/usr", {"/usr/local", "/usr/kest"});
  showChildren("/usr/local", {"/usr/local/etc"});
  for (const char *path : kWritable) makeFolders(kRoot + path, owner, group);
  check(chmod((kRoot + "/tmp").c_str(), 01777) == 0, "chmod /tmp");
  for (const char *device :
       {"/dev/null", "/dev/zero", "/dev/full", "/dev/random", "/dev/urandom", "/dev/tty"})
    show(device, true);
  makeTerminals();
  check(symlink("/proc/self/fd", (kRoot + "/dev/fd").c_str()) == 0, "/dev/fd");
  for (const string &folder : keep) show(folder, true);
}

void enterRoot(const string &workingFolder) {
  check(chdir(kRoot.c_str()) == 0, "chdir");
  check(syscall(SYS_pivot_root, ".", ".") == 0, "pivot_root");
  check(umount2(".", MNT_DETACH) == 0, "detach the old root");
  if (chdir(workingFolder.c_str()) != 0) check(chdir("/") == 0, "chdir /");
}

void dropCapabilities() {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2];
  check(syscall(SYS_capget, &header, data) == 0, "capget");
  for (int capability : {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH}) {
    prctl(PR_CAPBSET_DROP, capability);  // without it execve() would give it back
    data[0].effective &= ~(1u << capability);
    data[0].permitted &= ~(1u << capability);
    data[0].inheritable &= ~(1u << capability);
  }
  check(syscall(SYS_capset, &header, data) == 0, "capset");
}

}  // namespace

int main(int argc, char **argv) {
  std::vector<string> keep;
  string size = "256m", identity;
  int option;
  while ((option = getopt(argc, argv, "+k:s:i:")) != -1) {
    if (option == 'k')
      keep.push_back(optarg);
    else if (option == 's')
      size = optarg;
    else if (option == 'i')
      identity = optarg;
    else
      return 125;
  }
  if (optind >= argc || (!identity.empty() && identity != "root" && identity != "user")) {
    fprintf(stderr,
            "usage: hermetic-run [-k DIR]... [-s SIZE] [-i root|user] PROGRAM...\n");
    return 125;
  }
  if (identity == "root" && geteuid() != 0) {
    errno = EPERM;
    die("this test needs root");
  }
  const bool becomeUser = identity == "user" && geteuid() == 0;
  const uid_t uid = becomeUser ? 65534 : geteuid();
  const gid_t gid = becomeUser ? 65534 : getegid();
  char workingFolder[PATH_MAX];
  check(getcwd(workingFolder, sizeof workingFolder) != nullptr, "getcwd");

  enterNamespaces();
  buildRoot(size, keep, uid, gid);
  enterRoot(workingFolder);
  if (becomeUser)
    check(setgroups(0, nullptr) == 0 && setgid(gid) == 0 && setuid(uid) == 0, "setuid");
  if (geteuid() == 0) dropCapabilities();
  execvp(argv[optind], argv + optind);
  perror(argv[optind]);
  return 126;
}
