// The bytes of a record or block, value by value.
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>
#include <vector>

#include "qvx/support/bytes.h"

namespace qvx::test {

class RecordBytes {
 public:
  template <Scalar T>
  RecordBytes& add(T value) {
    const std::size_t at = bytes_.size();
    bytes_.resize(at + sizeof value);
    store_le(bytes_.data() + at, value);
    return *this;
  }
  // The text, cut or filled up with zeros to the size.
  RecordBytes& add_text(std::string_view text, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i)
      bytes_.push_back(i < text.size() ? static_cast<std::byte>(text[i]) : std::byte{0});
    return *this;
  }
  Bytes bytes() const { return bytes_; }

 private:
  std::vector<std::byte> bytes_;
};

}  // namespace qvx::test
