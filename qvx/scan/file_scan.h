// The one walk over a data file: its header, the types that it names, its data blocks, the pages and chains
// in them.
//
//   TypeCache types("schema");
//   FileScan scan(types);
//   if (scan.open(path, visitor) && scan.read_header(visitor) && scan.load_types(visitor))
//     while (scan.next(visitor)) {}
//   scan.failed()
//
// Nothing is printed; details of faults go to the logger like everything that the library has to say.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

#include "qvx/data/encoded_payload.h"
#include "qvx/data/file_header.h"
#include "qvx/scan/chain_walk.h"
#include "qvx/scan/data_input.h"
#include "qvx/scan/type_cache.h"
#include "qvx/scan/unit_walk.h"
#include "qvx/scan/visitor.h"

namespace qvx {

// Reads one file, once. Every function tells the visitor of a fault and then gives false; all may throw what
// the visitor throws, and std::bad_alloc.
class FileScan {
 public:
  // The cache outlives the scan.
  explicit FileScan(TypeCache& types);

  [[nodiscard]] bool open(const char* path, ScanVisitor& visitor);
  void set_read_hook(DataInput::ReadHook hook) { input_.set_read_hook(hook); }
  // Reads a file that is in memory, which outlives the scan.
  void open(Bytes file);

  // Reads the header, hands it over and checks it and its block size.
  [[nodiscard]] bool read_header(ScanVisitor& visitor);

  // Loads the types that the header names.
  [[nodiscard]] bool load_types(ScanVisitor& visitor);

  // Hands the next block over, or nothing on some calls. False at the end of the file and when it failed. The
  // bytes of a block stay as they are until the next call.
  bool next(ScanVisitor& visitor);

  // Whether the file has to count as failed.
  bool failed() const { return failed_; }

  // Bytes read so far, of a file that is compressed as a whole unpacked ones.
  std::uint64_t position() const { return input_.position(); }

  const qvx_data_file_header& header() const { return header_; }
  // In force at this point of the file.
  TypesInForce& types() { return types_; }

 private:
  struct FreeBytes {
    void operator()(std::byte* bytes) const { std::free(bytes); }
  };

  bool next_unit(ScanVisitor& visitor);
  std::optional<Bytes> read_unit();
  bool fail(ScanVisitor& visitor, FaultKind kind, std::string words);
  bool end_of_file(ScanVisitor& visitor, std::size_t left_over);

  DataInput input_;
  std::string path_;
  qvx_data_file_header header_;
  TypesInForce types_;
  bool failed_ = false;

  Decompressor decompressor_;
  std::unique_ptr<std::byte, FreeBytes> unit_;  // when it cannot be looked at where it was read to
  std::optional<UnitWalk> walk_;                // over the unit at hand
};

}  // namespace qvx
