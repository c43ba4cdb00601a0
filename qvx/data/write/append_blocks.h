// Adding data blocks to the end of a file, whole ones only, while others may do the same.
#pragma once

#include <cstdint>

#include "qvx/support/bytes.h"

namespace qvx {

struct Appended {
  std::uint64_t written = 0;  // whole blocks of what was given
  std::uint64_t file_size = 0;
  int error = 0;        // why fewer bytes were written than given
  bool ragged = false;  // a part of a block was left behind that could not be taken away
};

// Appends bytes and then zeros to a file that is open for appending. Of what does not fit only whole blocks
// stay.
Appended append_blocks(int descriptor, Bytes bytes, std::uint64_t zeros, std::uint32_t block_size) noexcept;

}  // namespace qvx
