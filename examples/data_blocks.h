// Reading the blocks of a data file, for programs that look at blocks of their own kind.
#pragma once

#include <filesystem>
#include <functional>

#include "qvx/support/bytes.h"

namespace qvx::examples {

// Calls `visit` with the bytes of every data block of the file, or, where a data block consists of compressed
// pages, of every unpacked page. They begin with a block and are valid during the call only. The file may be
// gzip-compressed as a whole. Throws std::runtime_error for a file that cannot be read or is no data file.
void for_each_block(const std::filesystem::path& path, const std::function<void(Bytes)>& visit);

}  // namespace qvx::examples
