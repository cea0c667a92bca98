#include "libzero/standard-descriptors.h"

#include <fcntl.h>

#include <cerrno>

namespace tarnix {

int keep_standard_descriptors_open() noexcept {
  for (int fd = 0; fd <= 2; ++fd) {
    if (fcntl(fd, F_GETFD) != -1 || errno != EBADF) continue;
    // The lowest free number is this one, as the lower ones are open.
    const int got = open("/dev/null", fd == 0 ? O_RDONLY : O_WRONLY);
    if (got != fd) return -1;
  }
  return 0;
}

}  // namespace tarnix
