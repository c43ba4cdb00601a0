// The chain of typed blocks in a data block or in an unpacked page, and the page blocks of a data block.
#pragma once

#include <cstddef>

#include "qvx/reader/reader_context.h"
#include "qvx/support/bytes.h"

namespace qvx {

// Walks the page blocks packed in a data block that begins with one. What follows the last of them is
// padding; a page block that does not fit or lacks its end magic ends the walk, which is no failure.
bool walk_page_blocks(ReaderContext& context, Bytes unit);

// Hands the blocks of a chain to their decoders; the type of the first decides. False when the file must
// fail.
bool walk_block_chain(ReaderContext& context, Bytes chain, bool in_compressed_data);

}  // namespace qvx
