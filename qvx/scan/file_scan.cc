#include "qvx/scan/file_scan.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "qvx/data/block.h"
#include "qvx/support/format.h"

namespace qvx {

FileScan::FileScan(TypeCache& types) : types_{types, {}, {}} {}

bool FileScan::fail(ScanVisitor& visitor, FaultKind kind, std::string words) {
  failed_ = true;
  visitor.on_fault({kind, Place{input_.position()}, std::move(words)});
  return false;
}

bool FileScan::open(const char* path, ScanVisitor& visitor) {
  path_ = path;
  if (input_.open(path)) return true;
  return fail(visitor, FaultKind::open_failed,
              format_text("Failed to open data file %s: %s", path, std::strerror(errno)));
}

void FileScan::open(Bytes file) {
  path_ = "(memory)";
  input_.open(file);
}

bool FileScan::read_header(ScanVisitor& visitor) {
  FileHeaderBytes bytes;
  if (input_.read(bytes) != bytes.size()) {
    return fail(visitor, FaultKind::header_short,
                format_text("Failed reading data file header: %s", std::strerror(input_.error())));
  }
  header_ = file_header_decode(bytes);
  visitor.on_header(header_);
  if (!validate_header(header_)) return fail(visitor, FaultKind::header_invalid, "Invalid data file header");
  const std::uint32_t block_size = header_.block_size;
  if (block_size >= kMinBlockSize && block_size < kBlockSizeEnd) return true;
  return fail(visitor, FaultKind::block_size_invalid,
              format_text("Block size %d must be in range between %zu and %d bytes ",
                          static_cast<int>(block_size), kMinBlockSize, static_cast<int>(kBlockSizeEnd)));
}

bool FileScan::load_types(ScanVisitor& visitor) {
  types_.counters_schema = header_.counters_schema_id;
  if (types_.cache.load(header_.event_schema_ids, header_.counters_schema_id, types_.types)) return true;
  return fail(visitor, FaultKind::types_failed, "Failed to load type system");
}

bool FileScan::next(ScanVisitor& visitor) {
  if (failed_) return false;
  if (!walk_ && !next_unit(visitor)) return false;
  const WalkStep step = walk_->next(visitor);
  if (step == WalkStep::block) return true;
  walk_.reset();
  failed_ = step == WalkStep::failed;
  return !failed_;
}

// Reads a data block; a short last one at the end of the file is accepted. What was read before a fault is
// gone through first.
bool FileScan::next_unit(ScanVisitor& visitor) {
  const std::uint64_t start = input_.position();
  std::optional<Bytes> unit = input_.view(header_.block_size);
  if (!unit) unit = read_unit();
  if (!unit) {
    return fail(visitor, FaultKind::no_memory,
                format_text("Failed to allocate data block of size %u: %s", header_.block_size,
                            std::strerror(errno)));
  }
  if (unit->size() < kMagicSize) return end_of_file(visitor, unit->size());
  walk_.emplace(types_, decompressor_, *unit, start);
  return true;
}

// Into memory of its own; nothing when there is none.
std::optional<Bytes> FileScan::read_unit() {
  // Not touched before it is read into: a small file may claim a large block size.
  if (unit_ == nullptr) unit_.reset(static_cast<std::byte*>(std::malloc(header_.block_size)));
  if (unit_ == nullptr) return std::nullopt;
  return Bytes(unit_.get(), input_.read({unit_.get(), header_.block_size}));
}

// When no data block is left to go through.
bool FileScan::end_of_file(ScanVisitor& visitor, std::size_t left_over) {
  if (!input_.fault().empty()) {
    return fail(visitor, FaultKind::read_failed,
                format_text("Failed to read data file %s: %s", path_.c_str(), input_.fault().c_str()));
  }
  if (left_over == 0) return false;
  return fail(visitor, FaultKind::no_block_header,
              format_text("No data block header read from the file %s", path_.c_str()));
}

}  // namespace qvx
