// Platform events. Without the host's event catalogue there is only the number to
// tell, so the system log gets it together with the texts.

#include <syslog.h>

#include <exception>
#include <string>

#include "kestsdk.h"

namespace {

// A text cannot end the line and begin one of its own making.
std::string oneLine(const char *text) {
  std::string line = text;
  for (char &c : line)
    if (static_cast<unsigned char>(c) < ' ' || c == '\x7f') c = '?';
  return line;
}

}  // namespace

int KESTLogSet1(int source, int level, unsigned int event, const char *text1,
                const char *text2, const char *text3, const char *text4) {
  try {
    std::string texts;
    for (const char *text : {text1, text2, text3, text4}) {
      if (text == nullptr) return -1;
      if (*text != '\0') texts += ' ' + oneLine(text);
    }
    syslog(LOG_INFO, "platform event 0x%08X (source %d, level %d)%s", event, source,
           level, texts.c_str());
    return 0;
  } catch (const std::exception &) {  // memory is short
    return -1;
  }
}
