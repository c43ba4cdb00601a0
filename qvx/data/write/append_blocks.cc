#include "qvx/data/write/append_blocks.h"

#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>

#include "qvx/data/write/output_folder.h"
#include "qvx/support/file_lock.h"

namespace qvx {
namespace {

// Up to here zeros are written together with the bytes before them; more of them become a hole.
constexpr std::size_t kWrittenZeros = 64 * 1024;
constexpr std::array<std::byte, kWrittenZeros> kZeros{};

// Writes both in one piece where the system lets it; returns what was written, with errno if it is less.
std::uint64_t write_with_zeros(int descriptor, Bytes bytes, std::uint64_t zeros) {
  const std::uint64_t total = bytes.size() + zeros;
  std::uint64_t written = 0;
  while (written < total) {
    const Bytes left = bytes.subspan(std::min<std::size_t>(written, bytes.size()));
    const std::uint64_t zeros_left = total - written - left.size();
    const std::array<iovec, 2> pieces{{
        {const_cast<std::byte*>(left.data()), left.size()},
        {const_cast<std::byte*>(kZeros.data()), std::min<std::uint64_t>(zeros_left, kZeros.size())},
    }};
    const ssize_t count = writev(descriptor, pieces.data(), static_cast<int>(pieces.size()));
    if (count > 0) {
      written += static_cast<std::uint64_t>(count);
    } else if (count == 0) {
      errno = ENOSPC;
      break;
    } else if (errno != EINTR) {
      break;
    }
  }
  return written;
}

}  // namespace

Appended append_blocks(int descriptor, Bytes bytes, std::uint64_t zeros, std::uint32_t block_size) noexcept {
  const FileLock lock(descriptor);
  const std::optional<FileStatus> before = status_of(descriptor);
  if (!before) return {0, 0, errno, false};
  const std::uint64_t end = before->size;
  // A hole is made by setting the size, which would cut off what somebody else appended meanwhile.
  const bool hole = lock && zeros > kWrittenZeros;
  Appended result;
  result.written = write_with_zeros(descriptor, bytes, hole ? 0 : zeros);
  if (hole && result.written == bytes.size()) {
    const auto whole = static_cast<off_t>(end + bytes.size() + zeros);
    if (ftruncate(descriptor, whole) == 0) result.written += zeros;
  }
  if (result.written < bytes.size() + zeros) {
    result.error = errno;
    const std::uint64_t rest = block_size != 0 ? result.written % block_size : 0;
    result.written -= rest;
    result.ragged =
        rest != 0 && (!lock || ftruncate(descriptor, static_cast<off_t>(end + result.written)) != 0);
  }
  const std::optional<FileStatus> after = status_of(descriptor);
  result.file_size = after ? after->size : end + result.written;
  return result;
}

}  // namespace qvx
