#include "qvx/support/file_lock.h"

#include <sys/file.h>

#include <cerrno>
#include <ctime>

namespace qvx {

FileLock::FileLock(int descriptor) noexcept : descriptor_(descriptor) {
  constexpr int kAttempts = 2000;
  constexpr timespec kPause{0, 1000000};
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    locked_ = flock(descriptor_, LOCK_EX | LOCK_NB) == 0;
    if (locked_) return;
    if (errno == EWOULDBLOCK) {
      nanosleep(&kPause, nullptr);
      errno = EWOULDBLOCK;
    } else if (errno != EINTR) {
      return;
    }
  }
}

FileLock::~FileLock() {
  const int saved = errno;
  if (locked_) flock(descriptor_, LOCK_UN);
  errno = saved;
}

}  // namespace qvx
