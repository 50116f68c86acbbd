// A folder of a test's own.

#ifndef POSTWELL_TESTS_PLATFORM_TEMP_FOLDER_H_
#define POSTWELL_TESTS_PLATFORM_TEMP_FOLDER_H_

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

class TempFolder {
 public:
  TempFolder() : path_("/var/tmp/test.XXXXXX") {
    EXPECT_NE(mkdtemp(path_.data()), nullptr);
  }
  TempFolder(const TempFolder &) = delete;
  TempFolder &operator=(const TempFolder &) = delete;
  ~TempFolder() {
    chmod(path_.c_str(), 0700);
    std::filesystem::remove_all(path_);
  }

  std::string operator/(const std::string &name) const { return path_ + "/" + name; }
  const std::string &path() const { return path_; }

  // The names in it, sorted, apart from lock files.
  std::vector<std::string> names() const {
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(path_))
      if (entry.path().extension() != ".lock") names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }

 private:
  std::string path_;
};

#endif  // POSTWELL_TESTS_PLATFORM_TEMP_FOLDER_H_
