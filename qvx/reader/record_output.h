// Events, counters and metrics blocks: what of them is printed, and how.
#pragma once

#include <cstddef>

#include "qvx/reader/reader_context.h"
#include "qvx/support/bytes.h"

namespace qvx {

// Prints the records of an events block that begins at the first of the bytes left in its chain. Gives the
// step to the next block, 0 on failure.
std::size_t process_events_block(ReaderContext& context, Bytes block);

// Prints a counters block, unless it lies outside the time range; with -p its header instead.
bool process_counters_block(ReaderContext& context, Bytes block);

// Prints a metrics block. Its faults are reported and never fail the file.
void process_metrics_block(ReaderContext& context, Bytes block);

}  // namespace qvx
