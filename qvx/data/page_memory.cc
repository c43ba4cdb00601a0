#include "qvx/data/page_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "qvx/support/bytes.h"
#include "qvx/support/file_descriptor.h"
#include "qvx/support/file_lock.h"
#include "qvx/support/log.h"

namespace qvx {
namespace {

constexpr const char* kSharedRoutine = "qvx_allocate_shared_mem";
constexpr mode_t kSharedMode = 0666;
constexpr std::int32_t kNotCreator = -1;

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

// Whether the name still leads to the object of the status.
bool has_name(const struct stat& object, const char* name) {
  const FileDescriptor named(shm_open(name, O_RDONLY, kSharedMode));
  struct stat status {};
  return named && fstat(named.get(), &status) == 0 && status.st_dev == object.st_dev &&
         status.st_ino == object.st_ino;
}

// The process that the header of an object names as its creator; 0 when it is too short for one.
std::int32_t creator_of(int descriptor) {
  std::array<std::byte, kPageHeaderSize> header{};
  if (pread(descriptor, header.data(), header.size(), 0) != static_cast<ssize_t>(header.size())) return 0;
  return load_field<kPageLayout, "creator", std::int32_t>(header.data());
}

bool is_alive(std::int32_t process) {
  return process > 0 && (kill(process, 0) == 0 || errno != ESRCH);
}

enum class Opening { created, opened, again, failed };

// Makes a page of an object that was just opened or created and is locked: nobody sees one that is not sized
// and cleared. Says `again` when the name does not lead to it any more.
Opening take_object(int descriptor, const qvx_data_page& page) {
  const char* const name = page.name.data();
  const auto size = static_cast<off_t>(page.size);
  struct stat status {};
  if (fstat(descriptor, &status) != 0) return Opening::failed;
  if (!has_name(status, name)) return Opening::again;
  if (status.st_size == 0) {
    if (size_new_object(descriptor, size)) return Opening::created;
    const int error = errno;
    QVX_LOG(QVX_LOG_ERROR, "[%s] Cannot ftruncate shared page %s.  Cleaning up this page", kSharedRoutine,
            name);
    shm_unlink(name);
    errno = error;
    return Opening::failed;
  }
  if (size < 0) {
    errno = EINVAL;
    return Opening::failed;
  }
  if (status.st_size >= size) return reserve_storage(descriptor, size) ? Opening::opened : Opening::failed;
  if (!is_alive(creator_of(descriptor))) {
    // Others may still have it mapped, so another one takes its place.
    shm_unlink(name);
    return Opening::again;
  }
  QVX_LOG(QVX_LOG_ERROR, "[%s] shared memory %s has %ld bytes, the page needs %lu", kSharedRoutine, name,
          static_cast<long>(status.st_size), page.size);
  errno = ENOBUFS;
  return Opening::failed;
}

// Opens the object of this name, or else creates it.
FileDescriptor open_object(const char* name) {
  FileDescriptor object(shm_open(name, O_RDWR, kSharedMode));
  if (!object && errno == ENOENT) object = FileDescriptor(shm_open(name, O_RDWR | O_CREAT, kSharedMode));
  return object;
}

// Maps the object and notes what it is; the lock on it keeps others away meanwhile.
int map_object(qvx_data_page& page, int descriptor, bool created) {
  struct stat status {};
  void* const mapped = fstat(descriptor, &status) == 0
                           ? mmap(nullptr, page.size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0)
                           : MAP_FAILED;
  if (mapped == MAP_FAILED) {
    const int error = errno;
    if (created) shm_unlink(page.name.data());
    return error;
  }
  page.memory = static_cast<std::byte*>(mapped);
  page.object_device = status.st_dev;
  page.object_number = status.st_ino;
  page.creator = created ? static_cast<std::int32_t>(getpid()) : kNotCreator;
  if (created) {
    std::memset(page.memory, 0, kPageHeaderSize);
    store_field<kPageLayout, "creator">(page.memory, page.creator);
  }
  return 0;
}

int map_shared(qvx_data_page& page) {
  const char* const name = page.name.data();
  QVX_LOG(QVX_LOG_DEBUG, "Creating shared-mem named %s", name);
  constexpr int kAttempts = 1000;  // while others remove objects of this name
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const FileDescriptor object = open_object(name);
    if (!object) {
      const int error = errno;
      QVX_LOG(QVX_LOG_ERROR, "[%s] cannot create shared memory %s", kSharedRoutine, name);
      return error;
    }
    const FileLock lock(object.get());
    if (!lock) return errno;
    const Opening opening = take_object(object.get(), page);
    if (opening == Opening::failed) return errno;
    if (opening == Opening::again) continue;
    const bool created = opening == Opening::created;
    if (created) {
      QVX_LOG(QVX_LOG_DEBUG, "shared memory was created: %s", name);
    } else {
      QVX_LOG(QVX_LOG_INFO, "shared memory was opened: %s", name);
    }
    return map_object(page, object.get(), created);
  }
  return EAGAIN;
}

int allocate_shared(qvx_data_page& page) {
  const int error = map_shared(page);
  if (error != 0) {
    QVX_LOG(QVX_LOG_ERROR, "FAILED to allocate shared_page: %s of size: %lu ", page.name.data(), page.size);
    return error;
  }
  QVX_LOG(QVX_LOG_INFO, "Allocating shared_page: %s of size: %lu ptr=%p", page.name.data(), page.size,
          static_cast<void*>(page.memory));
  return 0;
}

int allocate_regular(qvx_data_page& page) {
  page.memory = static_cast<std::byte*>(std::calloc(1, page.size));
  if (page.memory == nullptr) return ENOMEM;
  QVX_LOG(QVX_LOG_DEBUG, "Allocating regular_page: size: %lu ptr=%p", page.size,
          static_cast<void*>(page.memory));
  return 0;
}

// Removes the name if it still leads to the object of the page: after that was removed, another page may have
// got it.
bool remove_name(const qvx_data_page& page) {
  const char* const name = page.name.data();
  const FileDescriptor object(shm_open(name, O_RDWR, kSharedMode));
  if (!object) return false;
  const FileLock lock(object.get());
  struct stat status {};
  return lock && fstat(object.get(), &status) == 0 && status.st_dev == page.object_device &&
         status.st_ino == page.object_number && has_name(status, name) && shm_unlink(name) == 0;
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
    released = remove_name(page);
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
