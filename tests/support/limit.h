// A limit of the process that ends with the object.

#ifndef POSTWELL_TESTS_LIMIT_H_
#define POSTWELL_TESTS_LIMIT_H_

#include <gtest/gtest.h>
#include <sys/resource.h>

class Limit {
 public:
  Limit(int resource, rlim_t value) : resource_(resource) {
    EXPECT_EQ(getrlimit(static_cast<__rlimit_resource_t>(resource), &before_), 0);
    const rlimit changed = {value, before_.rlim_max};
    EXPECT_EQ(setrlimit(static_cast<__rlimit_resource_t>(resource), &changed), 0);
  }
  ~Limit() { setrlimit(static_cast<__rlimit_resource_t>(resource_), &before_); }
  Limit(const Limit &) = delete;
  Limit &operator=(const Limit &) = delete;

 private:
  int resource_;
  rlimit before_{};
};

#endif  // POSTWELL_TESTS_LIMIT_H_
