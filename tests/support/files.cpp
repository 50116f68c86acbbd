#include "support/files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

void writeFile(const std::string &path, const std::string &text, mode_t mode) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  out.close();
  EXPECT_TRUE(out.good()) << "cannot write " << path;
  EXPECT_EQ(chmod(path.c_str(), mode), 0) << path;
}

void appendFile(const std::string &path, const std::string &text) {
  std::ofstream out(path, std::ios::binary | std::ios::app);
  out << text;
  out.close();
  EXPECT_TRUE(out.good()) << "cannot write " << path;
}

std::string readFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  EXPECT_TRUE(in.is_open()) << "cannot read " << path;
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool fileExists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }
