#include "brisola_runtime_support.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

int BrisolaShmOpen(const char* name, int oflag, mode_t mode) {
#if defined(__linux__)
  /* Linux takes the flag atomically; elsewhere shm_open may refuse it, so it is set after. */
  return shm_open(name, oflag | O_CLOEXEC, mode);
#else
  int fd = shm_open(name, oflag, mode);
  if (fd >= 0 && fcntl(fd, F_SETFD, FD_CLOEXEC) != 0) {
    int error = errno;
    close(fd);
    errno = error;
    return -1;
  }
  return fd;
#endif
}

int BrisolaShmUnlink(const char* name) {
  return shm_unlink(name);
}
