// Making the alias map: the whole program, from alias.db to Postfix's table, against
// postalias alone on the text that it makes. 100,000 rows: as many aliases of one member
// each, and aliases of ten.

#include <alias.h>
#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "kestcore.h"
#include "ratio.h"

namespace {

constexpr int kRows = 100000;
constexpr char kDatabase[] = "/var/packages/Postwell/etc/alias.db";
constexpr char kFolder[] = "/var/packages/Postwell/target/etc/postfix";
constexpr char kConfig[] = "/var/packages/Postwell/target/etc/postmap";

// The rows are outside addresses: how long the name service takes for a user is its own.
bool store(int membersEach) {
  std::filesystem::remove(kDatabase);
  Alias aliases;
  if (aliases.load() != 0) return false;
  for (int row = 0; row < kRows; row += membersEach) {
    std::list<MemberInfo> members;
    for (int i = row; i < row + membersEach; ++i) {
      members.emplace_back();
      members.back().strName = "user" + std::to_string(i) + "@example.org";
      members.back().type = EXTADDR;
    }
    if (aliases.addMember("alias" + std::to_string(row), members) != 0) return false;
  }
  return true;
}

std::string databaseOf(int membersEach) {
  return kDatabase + ("." + std::to_string(membersEach));
}

std::string textOf(int membersEach) {
  return std::string(kFolder) + "/of" + std::to_string(membersEach);
}

bool runGenerator() {
  return KLIBCExec(ALIAS_MAP_PROGRAM, nullptr, nullptr, nullptr, nullptr) == 0;
}

// Keeps the database and the text that is made of it for the measurements.
bool prepare(int membersEach) {
  if (!store(membersEach) || !runGenerator()) return false;
  const std::string made = std::string(kFolder) + "/aliases";
  std::error_code error;
  std::filesystem::copy_file(kDatabase, databaseOf(membersEach), error);
  if (!error) std::filesystem::copy_file(made, textOf(membersEach), error);
  return !error;
}

template <int MembersEach>
void makeMap(benchmark::State &state) {
  std::filesystem::remove(kDatabase);
  std::filesystem::copy_file(databaseOf(MembersEach), kDatabase);
  for (auto _ : state)
    if (!runGenerator()) return state.SkipWithError("kest_alias_map failed");
}

template <int MembersEach>
void postalias(benchmark::State &state) {
  const std::string map = "lmdb:" + textOf(MembersEach);
  for (auto _ : state)
    if (KLIBCExec("/usr/sbin/postalias", "-c", kConfig, map.c_str(), nullptr) != 0)
      return state.SkipWithError("postalias failed");
}

bool writeText(const std::string &path, const std::string &text) {
  std::ofstream file(path);
  file << text;
  file.close();
  return file.good();
}

}  // namespace

int main(int argc, char **argv) {
  std::filesystem::create_directories(kFolder);
  std::filesystem::create_directories(kConfig);
  if (!writeText(std::string(kConfig) + "/main.cf", "compatibility_level = 3.6\n") ||
      !writeText("/var/packages/Postwell/etc/postwell.conf",
                 "account_type=\"local\"\n") ||
      !prepare(1) || !prepare(10)) {
    fprintf(stderr, "%s: cannot make the package's files (run it under hermetic-run)\n",
            argv[0]);
    return 1;
  }
  // One run takes long enough to be measured by itself.
  std::string repetitions = "--benchmark_repetitions=9";
  std::vector<char *> arguments = {argv[0], repetitions.data()};
  arguments.insert(arguments.end(), argv + 1, argv + argc);
  return runRatios(static_cast<int>(arguments.size()), arguments.data(),
                   {{"100,000 aliases of one member", makeMap<1>, postalias<1>, 2.0},
                    {"10,000 aliases of ten members", makeMap<10>, postalias<10>, 2.0}});
}
