// Processes for tests. Standard input, output and error are nameless files, so no
// program can block on a full pipe, whatever it prints; what goes to a terminal is read
// as it comes.

#include "run_program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>

namespace {

using File = std::unique_ptr<std::FILE, int (*)(std::FILE *)>;

File fileWith(const std::string &text) {
  File file(tmpfile(), fclose);
  EXPECT_NE(file, nullptr);
  EXPECT_EQ(fwrite(text.data(), 1, text.size(), file.get()), text.size());
  rewind(file.get());
  return file;
}

std::string contentOf(std::FILE *file) {
  rewind(file);
  std::string text;
  for (int c; (c = fgetc(file)) != EOF;) text += static_cast<char>(c);
  return text;
}

int waitFor(pid_t child) {
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Which files of the test become the program's.
struct Streams {
  int in, out, err;
};

// Starts the program and closes nothing; -1 when it cannot be run.
pid_t start(const std::string &program, const std::vector<std::string> &arguments,
            const Streams &streams) {
  std::vector<char *> argv{const_cast<char *>(program.c_str())};
  for (const std::string &argument : arguments)
    argv.push_back(const_cast<char *>(argument.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, streams.in, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, streams.out, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, streams.err, STDERR_FILENO);
  pid_t child = 0;
  const int error =
      posix_spawnp(&child, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  EXPECT_EQ(error, 0) << "cannot run " << program;
  return error == 0 ? child : -1;
}

// The emulator's words, if there is one, and the program.
std::vector<std::string> wordsOf(const std::string &emulator,
                                 const std::string &program) {
  std::vector<std::string> words;
  std::istringstream in(emulator);
  for (std::string word; std::getline(in, word, '|');) words.push_back(word);
  words.push_back(program);
  return words;
}

// A pseudo-terminal: what is typed, and what the program's side is.
class Terminal {
 public:
  Terminal() : typist_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    EXPECT_TRUE(typist_ >= 0 && grantpt(typist_) == 0 && unlockpt(typist_) == 0);
    screen_ = open(ptsname(typist_), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios modes{};
    EXPECT_EQ(tcgetattr(screen_, &modes), 0);
    modes.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    modes.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    EXPECT_EQ(tcsetattr(screen_, TCSANOW, &modes), 0);
  }
  ~Terminal() {
    closeScreen();
    close(typist_);
  }
  Terminal(const Terminal &) = delete;
  Terminal &operator=(const Terminal &) = delete;

  int screen() const { return screen_; }
  void closeScreen() {
    if (screen_ >= 0) close(screen_);
    screen_ = -1;
  }

  void type(const std::string &text) const {
    EXPECT_EQ(write(typist_, text.data(), text.size()),
              static_cast<ssize_t>(text.size()));
  }
  // Until no program has the terminal any more.
  std::string readAll() const {
    std::string text;
    char part[4096];
    for (ssize_t n; (n = read(typist_, part, sizeof part)) > 0;)
      text.append(part, static_cast<size_t>(n));
    return text;
  }

 private:
  int typist_, screen_ = -1;
};

}  // namespace

Outcome runNative(const std::string &program, const std::vector<std::string> &arguments,
                  const std::string &input, const std::string &outPath) {
  const File in = fileWith(input), err = fileWith("");
  const File out =
      outPath.empty() ? fileWith("") : File(fopen(outPath.c_str(), "r+e"), fclose);
  EXPECT_NE(out, nullptr) << outPath;
  if (out == nullptr) return {-1, "", ""};
  const pid_t child =
      start(program, arguments, {fileno(in.get()), fileno(out.get()), fileno(err.get())});
  if (child < 0) return {-1, "", ""};
  const int status = waitFor(child);
  return {status, outPath.empty() ? contentOf(out.get()) : "", contentOf(err.get())};
}

Outcome runBuilt(const std::string &emulator, const std::string &program,
                 const std::vector<std::string> &arguments, const std::string &input,
                 const std::string &outPath) {
  std::vector<std::string> words = wordsOf(emulator, program);
  words.insert(words.end(), arguments.begin(), arguments.end());
  return runNative(words[0], {words.begin() + 1, words.end()}, input, outPath);
}

Outcome runOnTerminal(const std::string &emulator, const std::string &program,
                      const std::vector<std::string> &arguments,
                      const std::string &input) {
  constexpr char kEndOfInput[] = "\x04";
  std::vector<std::string> words = wordsOf(emulator, program);
  words.insert(words.end(), arguments.begin(), arguments.end());
  Terminal terminal;
  const File err = fileWith("");
  terminal.type(input + kEndOfInput);
  const pid_t child = start(words[0], {words.begin() + 1, words.end()},
                            {terminal.screen(), terminal.screen(), fileno(err.get())});
  terminal.closeScreen();
  if (child < 0) return {-1, "", ""};
  const std::string out = terminal.readAll();
  return {waitFor(child), out, contentOf(err.get())};
}
