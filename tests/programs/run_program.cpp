// Processes for tests. Standard input, output and error are nameless files, so no
// program can block on a full pipe, whatever it prints.

#include "run_program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
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

}  // namespace

Outcome runNative(const std::string &program, const std::vector<std::string> &arguments,
                  const std::string &input, const std::string &outPath) {
  std::vector<char *> argv{const_cast<char *>(program.c_str())};
  for (const std::string &argument : arguments)
    argv.push_back(const_cast<char *>(argument.c_str()));
  argv.push_back(nullptr);

  const File in = fileWith(input), out = fileWith(""), err = fileWith("");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fileno(in.get()), STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, fileno(out.get()), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, fileno(err.get()), STDERR_FILENO);
  if (!outPath.empty())
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outPath.c_str(), O_WRONLY,
                                     0);
  pid_t child = 0;
  const int error =
      posix_spawnp(&child, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  EXPECT_EQ(error, 0) << "cannot run " << program;
  if (error != 0) return {-1, "", ""};
  const int status = waitFor(child);
  return {status, contentOf(out.get()), contentOf(err.get())};
}

Outcome runBuilt(const std::string &emulator, const std::string &program,
                 const std::vector<std::string> &arguments, const std::string &input,
                 const std::string &outPath) {
  std::vector<std::string> words;
  std::istringstream in(emulator);
  for (std::string word; std::getline(in, word, '|');) words.push_back(word);
  words.push_back(program);
  words.insert(words.end(), arguments.begin(), arguments.end());
  return runNative(words[0], {words.begin() + 1, words.end()}, input, outPath);
}
