// What the tests of "postwell NOUN show" and "postwell NOUN set" share.

#ifndef POSTWELL_TESTS_POSTWELL_SETTINGS_TEST_H_
#define POSTWELL_TESTS_POSTWELL_SETTINGS_TEST_H_

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "programs/run_program.h"
#include "programs/settings.h"

using Arguments = std::vector<std::string>;
using Keys = std::map<std::string, std::string>;

// The commands of one noun, beginning with kSomeSettings.
class PostwellSettingsTest : public testing::Test {
 protected:
  explicit PostwellSettingsTest(const char *noun) : noun_(noun) {
    writeFile(PackageTree::kSettings, kSomeSettings);
  }

  Outcome show(const Arguments &options = {}) const { return run("show", options, ""); }
  Outcome set(const Arguments &options, const std::string &input = "") const {
    return run("set", options, input);
  }

  // The options change exactly these keys of the file.
  void expectSet(const Arguments &options, const Keys &changes) const {
    writeFile(PackageTree::kSettings, kSomeSettings);
    const Keys before = settingsNow();
    const Outcome outcome = set(options);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(changedSince(before), changes) << testing::PrintToString(options);
  }

  // The first line of the message is this, and nothing happens.
  void expectRefused(const Arguments &options, const std::string &message,
                     const std::string &input = "") {
    const std::string before = readFile(PackageTree::kSettings);
    const Outcome outcome = set(options, input);
    EXPECT_EQ(outcome.status, 2) << testing::PrintToString(options);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err.substr(0, outcome.err.find('\n')), "postwell: " + message);
    EXPECT_EQ(readFile(PackageTree::kSettings), before);
    EXPECT_TRUE(package_.takeCalls().empty());
  }

  PackageTree package_;

 private:
  Outcome run(const char *verb, const Arguments &options,
              const std::string &input) const {
    Arguments words{noun_, verb};
    words.insert(words.end(), options.begin(), options.end());
    return RUN_TEST_PROGRAM(words, input);
  }

  const char *const noun_;
};

#endif  // POSTWELL_TESTS_POSTWELL_SETTINGS_TEST_H_
