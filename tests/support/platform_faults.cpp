// The functions below take the place of the platform's: the dynamic linker binds
// the library's calls to the test program first. Each forwards to the real one.

#include "support/platform_faults.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>

#include "kestcore.h"
#include "kestsdk.h"

namespace platform {

namespace {

std::map<std::string, int> countdown;  // calls left until the failing one
std::map<std::string, int> answers;
std::vector<std::string> calls;

}  // namespace

void reset() {
  countdown.clear();
  answers.clear();
  calls.clear();
}

void failCall(const std::string &function, int nth) { countdown[function] = nth; }
void answerCall(const std::string &function, int result) { answers[function] = result; }

std::vector<std::string> takeCalls() {
  std::vector<std::string> taken;
  taken.swap(calls);
  return taken;
}

namespace {

bool fails(const char *function) {
  const auto found = countdown.find(function);
  return found != countdown.end() && --found->second == 0;
}

// Takes the answer that a test has set for the function's next call.
bool hasAnswer(const char *function, int *result) {
  const auto found = answers.find(function);
  if (found == answers.end()) return false;
  *result = found->second;
  answers.erase(found);
  return true;
}

void note(const char *function, const std::string &what = "") {
  calls.push_back(what.empty() ? function : std::string(function) + " " + what);
}

// The platform's own function of this name.
template <typename Function>
Function *real(Function * /*declared*/, const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

}  // namespace

}  // namespace platform

#define FAIL_OR_FORWARD(function, failure, ...)   \
  if (platform::fails(#function)) return failure; \
  return platform::real(&function, #function)(__VA_ARGS__)

extern "C" {

KLIBCSzHash *KLIBCSzHashAlloc(int size) {
  platform::note("KLIBCSzHashAlloc", std::to_string(size));
  FAIL_OR_FORWARD(KLIBCSzHashAlloc, nullptr, size);
}

int KLIBCSzHashSetValue(KLIBCSzHash **table, const char *key, const char *value) {
  FAIL_OR_FORWARD(KLIBCSzHashSetValue, -1, table, key, value);
}

int KLIBCStrTrimSpace(char *text, int flags) {
  EXPECT_EQ(flags, 0);
  int answer = 0;
  if (platform::hasAnswer("KLIBCStrTrimSpace", &answer)) return answer;
  return platform::real(&KLIBCStrTrimSpace, "KLIBCStrTrimSpace")(text, flags);
}

char *KLIBCStrGet(const char *format, ...) {
  if (platform::fails("KLIBCStrGet")) return nullptr;
  char *text = nullptr;
  va_list arguments;
  va_start(arguments, format);
  EXPECT_GE(vasprintf(&text, format, arguments), 0);
  va_end(arguments);
  char *const copy = platform::real(&KLIBCStrGet, "KLIBCStrGet")("%s", text);
  free(text);
  return copy;
}

KLIBCSzList *KLIBCSzListAlloc(int size) {
  platform::note("KLIBCSzListAlloc", std::to_string(size));
  FAIL_OR_FORWARD(KLIBCSzListAlloc, nullptr, size);
}

int KLIBCFileGetPair(const char *path, KLIBCSzHash **table) {
  platform::note("KLIBCFileGetPair", path);
  FAIL_OR_FORWARD(KLIBCFileGetPair, -1, path, table);
}

int KLIBCFileSetKeys(const char *path, const KLIBCSzHash *table, int flags,
                     const char *format) {
  platform::note("KLIBCFileSetKeys", path);
  EXPECT_EQ(flags, 0);
  EXPECT_STREQ(format, "%s=\"%s\"\n");
  FAIL_OR_FORWARD(KLIBCFileSetKeys, -1, path, table, flags, format);
}

int KLIBCFileGetKeyValue(const char *path, const char *key, char *buffer, int size,
                         int flags) {
  platform::note("KLIBCFileGetKeyValue",
                 std::string(path) + " " + key + " " + std::to_string(size));
  FAIL_OR_FORWARD(KLIBCFileGetKeyValue, -1, path, key, buffer, size, flags);
}

int KLIBCFileSetKeyValue(const char *path, const char *key, const char *value,
                         const char *format) {
  platform::note("KLIBCFileSetKeyValue", std::string(path) + " " + key + " " + value);
  FAIL_OR_FORWARD(KLIBCFileSetKeyValue, -1, path, key, value, format);
}

int KLIBCFileGetSectionValue(const char *path, const char *section, const char *key,
                             char *buffer, int size) {
  platform::note("KLIBCFileGetSectionValue", std::string(path) + " " + section + " " +
                                                 key + " " + std::to_string(size));
  FAIL_OR_FORWARD(KLIBCFileGetSectionValue, -1, path, section, key, buffer, size);
}

int KLIBCFileSetSectionValue(const char *path, const char *section, const char *key,
                             const char *value, const char *format) {
  platform::note("KLIBCFileSetSectionValue", std::string(section) + " " + value);
  FAIL_OR_FORWARD(KLIBCFileSetSectionValue, -1, path, section, key, value, format);
}

int KLIBCFileGetLine(const char *path, const char *text, char *buffer, int size,
                     int flags) {
  platform::note("KLIBCFileGetLine",
                 std::string(path) + " " + text + " " + std::to_string(size));
  EXPECT_EQ(flags, 0);
  FAIL_OR_FORWARD(KLIBCFileGetLine, -1, path, text, buffer, size, flags);
}

int KLIBCExec(const char *program, const char *arg1, const char *arg2, const char *arg3,
              const char *arg4) {
  std::string line = program;
  for (const char *argument : {arg1, arg2, arg3, arg4}) {
    if (argument == nullptr) break;
    line += std::string(" ") + argument;
  }
  platform::note("KLIBCExec", line);
  int answer;
  if (platform::hasAnswer("KLIBCExec", &answer)) return answer;
  FAIL_OR_FORWARD(KLIBCExec, -1, program, arg1, arg2, arg3, arg4);
}

int KLIBCryptSzEncrypt(const char *plain, char *buffer, int size) {
  platform::note("KLIBCryptSzEncrypt", std::to_string(size));
  FAIL_OR_FORWARD(KLIBCryptSzEncrypt, 0, plain, buffer, size);
}

int KLIBCryptSzDecrypt(const char *text, char *buffer, int size) {
  platform::note("KLIBCryptSzDecrypt", std::to_string(size));
  FAIL_OR_FORWARD(KLIBCryptSzDecrypt, 0, text, buffer, size);
}

int KESTUserEnum(KLIBCSzList **list, int type) {
  platform::note("KESTUserEnum", std::to_string(type));
  int answer;
  if (platform::hasAnswer("KESTUserEnum", &answer)) return answer;
  FAIL_OR_FORWARD(KESTUserEnum, -1, list, type);
}

int KESTDomainUserHomePathGet(const char *user, char *buffer, int size) {
  platform::note("KESTDomainUserHomePathGet",
                 std::string(user) + " " + std::to_string(size));
  int answer;
  if (platform::hasAnswer("KESTDomainUserHomePathGet", &answer)) return answer;
  FAIL_OR_FORWARD(KESTDomainUserHomePathGet, -1, user, buffer, size);
}

int KESTLDAPUserHomePathGet(const char *user, char *buffer, int size) {
  platform::note("KESTLDAPUserHomePathGet",
                 std::string(user) + " " + std::to_string(size));
  int answer;
  if (platform::hasAnswer("KESTLDAPUserHomePathGet", &answer)) return answer;
  FAIL_OR_FORWARD(KESTLDAPUserHomePathGet, -1, user, buffer, size);
}

int KESTFwRuleHup() {
  platform::note("KESTFwRuleHup");
  int answer;
  if (platform::hasAnswer("KESTFwRuleHup", &answer)) return answer;
  if (platform::fails("KESTFwRuleHup")) return -1;
  return platform::real(&KESTFwRuleHup, "KESTFwRuleHup")();
}

}  // extern "C"
