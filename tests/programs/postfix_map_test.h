// What the tests of the makers of Postfix's maps share.

#ifndef POSTWELL_TESTS_POSTFIX_MAP_TEST_H_
#define POSTWELL_TESTS_POSTFIX_MAP_TEST_H_

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "programs/postfix_config.h"
#include "programs/run_program.h"
#include "programs/settings.h"

// A maker `program` of the map `name`, and Postfix, which looks things up in it.
class PostfixMapTest : public testing::Test {
 protected:
  PostfixMapTest(const std::string &program, const std::string &name,
                 const std::string &config)
      : kMap(kFolder + "/" + name), program_(program), files_{name, name + ".lmdb"} {
    useAccounts("local");
    EXPECT_EQ(mkdir(kPostmapConfig.c_str(), 0755), 0);
    writePostfixConfig(kPostmapConfig, config);
  }

  static void useAccounts(const std::string &type) {
    writeFile(PackageTree::kSettings, "account_type=\"" + type + "\"\n");
  }

  static Outcome run() { return RUN_TEST_PROGRAM({}); }

  // What Postfix finds under the name.
  std::string found(const std::string &name) const {
    return runNative("/usr/sbin/postmap",
                     {"-c", kPostmapConfig, "-q", name, "lmdb:" + kMap})
        .out;
  }

  std::vector<std::string> folder() const {
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(kFolder))
      names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }

  // The map and what is made of it are all that there is.
  void expectTheMapAlone() const { EXPECT_EQ(folder(), files_); }

  // A run fails with this message and leaves nothing beside the map.
  void expectFailedRun(const std::string &message) const {
    const Outcome outcome = run();
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_NE(outcome.err.find(program_ + ": " + message), std::string::npos)
        << outcome.err;
    expectTheMapAlone();
  }

  const std::string kFolder = "/var/packages/Postwell/target/etc/postfix";
  const std::string kPostmapConfig = "/var/packages/Postwell/target/etc/postmap";
  const std::string kMap;
  PackageTree package_;

 private:
  const std::string program_;
  const std::vector<std::string> files_;
};

#endif  // POSTWELL_TESTS_POSTFIX_MAP_TEST_H_
