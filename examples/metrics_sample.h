// The sample of a file of metrics.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string_view>

namespace qvx::examples {

// Writes the file: a minute of one node's metrics from the given time on, the same bytes at every run.
void write_metrics_sample(const std::filesystem::path& path, std::string_view node, std::uint64_t start);

}  // namespace qvx::examples
