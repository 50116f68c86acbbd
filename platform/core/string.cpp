// Text helpers.

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "error.h"
#include "settings_line.h"

using kestcore::fail;

int KLIBCStrTrimSpace(char *text, int /*flags*/) {
  if (text == nullptr) return fail(KLIBC_ERR_BAD_PARAMETERS);
  const std::string_view kept = kestcore::trim(text);
  memmove(text, kept.data() == nullptr ? text : kept.data(), kept.size());
  text[kept.size()] = '\0';
  return static_cast<int>(kept.size());
}

char *KLIBCStrGet(const char *format, ...) {
  if (format == nullptr) {
    fail(KLIBC_ERR_BAD_PARAMETERS);
    return nullptr;
  }
  char *text = nullptr;
  va_list arguments;
  va_start(arguments, format);
  const int length = vasprintf(&text, format, arguments);
  va_end(arguments);
  if (length >= 0) return text;
  fail(KLIBC_ERR_OUT_OF_MEMORY);
  return nullptr;
}

void KLIBCStrPut(char *text) { free(text); }
