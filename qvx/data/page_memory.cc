#include "qvx/data/page_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "qvx/support/bytes.h"
#include "qvx/support/file_descriptor.h"
#include "qvx/support/log.h"

namespace qvx {
namespace {

constexpr const char* kSharedRoutine = "qvx_allocate_shared_mem";
constexpr mode_t kSharedMode = 0666;
constexpr std::int32_t kNotCreator = -1;

// Opens the object of this name, or else creates it; the latter sets `created`. -1 on failure.
int open_or_create(const char* name, bool& created) {
  // Twice, since another process may create the object between the two calls. O_EXCL lets only one of them
  // believe it is the creator.
  for (int attempt = 0; attempt < 2; ++attempt) {
    created = false;
    const int opened = shm_open(name, O_RDWR, kSharedMode);
    if (opened >= 0) return opened;
    const int open_error = errno;
    created = true;
    const int made = shm_open(name, O_RDWR | O_CREAT | O_EXCL, kSharedMode);
    if (made >= 0) return made;
    if (errno != EEXIST) return -1;
    errno = open_error;
  }
  return -1;
}

// Gives every byte of the object its storage, so that writing to the page cannot fail later, when it would
// end the process.
bool reserve_storage(int descriptor, off_t size) {
  int result = 0;
  do {
    result = fallocate(descriptor, 0, 0, size);
  } while (result != 0 && errno == EINTR);
  return result == 0 || errno == EOPNOTSUPP;
}

bool size_new_object(int descriptor, off_t size) {
  return ftruncate(descriptor, size) == 0 && reserve_storage(descriptor, size);
}

// True when the object really has the bytes that are about to be mapped.
bool holds(int descriptor, off_t size) {
  struct stat status {};
  if (fstat(descriptor, &status) != 0) return false;
  if (size < 0 || status.st_size < size) {
    errno = EINVAL;
    return false;
  }
  return reserve_storage(descriptor, size);
}

int map_shared(qvx_data_page& page) {
  const char* const name = page.name.data();
  QVX_LOG(QVX_LOG_DEBUG, "Creating shared-mem named %s", name);
  bool created = false;
  const FileDescriptor descriptor(open_or_create(name, created));
  if (!descriptor) {
    const int error = errno;
    QVX_LOG(QVX_LOG_ERROR, "[%s] cannot create shared memory %s", kSharedRoutine, name);
    return error;
  }
  const auto size = static_cast<off_t>(page.size);
  if (created) {
    if (!size_new_object(descriptor.get(), size)) {
      const int error = errno;
      QVX_LOG(QVX_LOG_ERROR, "[%s] Cannot ftruncate shared page %s.  Cleaning up this page", kSharedRoutine,
              name);
      shm_unlink(name);
      return error;
    }
    QVX_LOG(QVX_LOG_DEBUG, "shared memory was created: %s", name);
  } else {
    QVX_LOG(QVX_LOG_INFO, "shared memory was opened: %s", name);
    if (!holds(descriptor.get(), size)) return errno;
  }
  void* const mapped = mmap(nullptr, page.size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor.get(), 0);
  if (mapped == MAP_FAILED) {
    const int error = errno;
    if (created) shm_unlink(name);
    return error;
  }
  page.memory = static_cast<std::byte*>(mapped);
  page.creator = created ? static_cast<std::int32_t>(getpid()) : kNotCreator;
  return 0;
}

int allocate_shared(qvx_data_page& page) {
  const int error = map_shared(page);
  if (error != 0) {
    QVX_LOG(QVX_LOG_ERROR, "FAILED to allocate shared_page: %s of size: %lu ", page.name.data(), page.size);
    return error;
  }
  QVX_LOG(QVX_LOG_INFO, "Allocating shared_page: %s of size: %lu ptr=%p", page.name.data(), page.size,
          static_cast<void*>(page.memory));
  if (page.creator > 0) {
    std::memset(page.memory, 0, kPageHeaderSize);
    store_field<kPageLayout, "creator">(page.memory, page.creator);
  }
  return 0;
}

int allocate_regular(qvx_data_page& page) {
  page.memory = static_cast<std::byte*>(std::calloc(1, page.size));
  if (page.memory == nullptr) return ENOMEM;
  QVX_LOG(QVX_LOG_DEBUG, "Allocating regular_page: size: %lu ptr=%p", page.size,
          static_cast<void*>(page.memory));
  return 0;
}

void release_shared(qvx_data_page& page) {
  void* const memory = page.memory;
  const char* const name = page.name.data();
  const std::size_t size = page.size;
  bool released = true;
  QVX_LOG(QVX_LOG_INFO, "Freeing shared-memory page: %p", memory);
  const bool is_creator = page.creator == static_cast<std::int32_t>(getpid());
  if (is_creator) {
    QVX_LOG(QVX_LOG_INFO, "| unlinking shared memory: %s %p %zu", name, memory, size);
    released = shm_unlink(name) == 0;
    QVX_LOG(QVX_LOG_INFO, released ? "| --> shm_unlink(%s) ok" : "| --> shm_unlink(%s) failed", name);
  } else {
    QVX_LOG(QVX_LOG_INFO, "| unmapping shared memory: %s %p %zu", name, memory, size);
    QVX_LOG(QVX_LOG_INFO, "| --> munmap (page=%p, size=%zu) ", memory, size);
  }
  if (munmap(memory, size) != 0) {
    QVX_LOG(QVX_LOG_ERROR, "| --> cannot unmap (%p, %zu)", memory, size);
    released = false;
  } else if (!is_creator) {
    QVX_LOG(QVX_LOG_INFO, "| ----> ok");
  }
  if (!released) QVX_LOG(QVX_LOG_ERROR, "Problem freeing shared-memory page");
}

}  // namespace

int page_memory_allocate(qvx_data_page& page) noexcept {
  switch (page.kind) {
    case QVX_REGULAR_PAGE:
      return allocate_regular(page);
    case QVX_SHARED_PAGE:
      return allocate_shared(page);
    default:
      return EINVAL;
  }
}

void page_memory_release(qvx_data_page& page) noexcept {
  if (page.kind == QVX_SHARED_PAGE) {
    release_shared(page);
  } else {
    std::free(page.memory);
  }
  page.memory = nullptr;
}

}  // namespace qvx
