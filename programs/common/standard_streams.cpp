#include "common/standard_streams.h"

#include <fcntl.h>
#include <unistd.h>

void keepStandardStreams() {
  int fd;
  do fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd >= 0) close(fd);
}
