// The buffer that histogram records are written into.
#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string_view>

#include "qvx/support/bytes.h"

namespace qvx::metrics {

// A byte buffer of fixed capacity, for records that must not grow beyond what was set aside for them.
// Owns its buffer, allocated once. A write that would pass the capacity writes nothing and throws
// std::out_of_range with the name of the operation.
class PreallocatedVector {
 public:
  explicit PreallocatedVector(std::size_t capacity)
      : data_(std::make_unique_for_overwrite<std::byte[]>(capacity)), capacity_(capacity) {}

  const std::byte* data() const { return data_.get(); }
  std::size_t size() const { return size_; }
  std::size_t capacity() const { return capacity_; }
  Bytes bytes() const { return {data_.get(), size_}; }

  // One value of a fixed width, little-endian.
  template <Scalar T>
  void push_back(T value) {
    store_le(claim(sizeof value, "PreallocatedVector::push_back"), value);
  }

  // A run of bytes.
  void insert(Bytes run) { copy(run, "PreallocatedVector::insert"); }

  // A text, without a terminator.
  void append(std::string_view text) { copy(as_bytes(text), "PreallocatedVector::append"); }

 private:
  std::byte* claim(std::size_t size, const char* operation) {
    if (size > capacity_ - size_) throw std::out_of_range(operation);
    std::byte* const at = data_.get() + size_;
    size_ += size;
    return at;
  }

  void copy(Bytes run, const char* operation) {
    std::byte* const at = claim(run.size(), operation);
    if (!run.empty()) std::memcpy(at, run.data(), run.size());
  }

  std::unique_ptr<std::byte[]> data_;
  std::size_t capacity_;
  std::size_t size_ = 0;
};

}  // namespace qvx::metrics
