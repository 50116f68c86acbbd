// Small questions about files.

#include <unistd.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "error.h"
#include "text_file.h"

using namespace kestcore;

namespace {

int getLine(const char *path, const char *text, char *buffer, int size) {
  std::string content;
  if (readFile(path, &content) < 0) return -1;
  std::string_view rest = content, line;
  while (nextLine(&rest, &line)) {
    if (line.back() == '\n') line.remove_suffix(1);
    if (line.find(text) != std::string_view::npos)
      return copyOut(line.substr(0, static_cast<size_t>(size) - 1), buffer, size);
  }
  return 0;
}

}  // namespace

int KLIBCFileExist(const char *path) {
  return path != nullptr && access(path, F_OK) == 0;
}

int KLIBCFileGetLine(const char *path, const char *text, char *buffer, int size,
                     int /*flags*/) {
  if (buffer == nullptr || size <= 0) return fail(KLIBC_ERR_BAD_PARAMETERS);
  buffer[0] = '\0';
  // A buffer for the NUL alone could not tell a hit from none.
  if (path == nullptr || text == nullptr || *text == '\0' || size < 2)
    return fail(KLIBC_ERR_BAD_PARAMETERS);
  return guarded(-1, [&] { return getLine(path, text, buffer, size); });
}
