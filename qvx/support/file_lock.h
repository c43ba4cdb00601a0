// Keeps a file to one process, or to one part of a process, for a scope.
#pragma once

namespace qvx {

// An exclusive lock on what a descriptor stands for. Those that take it keep it for a moment only, so it
// gives up after two seconds; and some file systems know none.
class FileLock {
 public:
  // The descriptor stays open at least as long as the lock.
  explicit FileLock(int descriptor) noexcept;
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  // False, with errno when it is made, when somebody else may be at work.
  explicit operator bool() const { return locked_; }

 private:
  int descriptor_;
  bool locked_ = false;
};

}  // namespace qvx
