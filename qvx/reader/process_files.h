// The loop over the input files, and over the data blocks of each.
#pragma once

#include <cstddef>

#include "qvx/reader/options.h"
#include "qvx/support/output_sink.h"

namespace qvx {

// Reads every input file and prints what it holds. Returns the number of files that failed. Stops early when
// the output cannot be written, which the sink tells.
int process_files(const ReaderOptions& options, OutputSink& sink);

}  // namespace qvx
