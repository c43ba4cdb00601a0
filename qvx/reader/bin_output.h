// The output format `bin`: compressed pages are unpacked and saved as new data files.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "qvx/data/encoded_payload.h"
#include "qvx/data/file_header.h"
#include "qvx/data/page.h"
#include "qvx/data/page_block.h"
#include "qvx/data/write/data_writer.h"
#include "qvx/host/client_id.h"
#include "qvx/reader/page_schemas.h"

namespace qvx {

// What one input file needs for it. Destroying it completes the files that it wrote.
class BinOutput {
 public:
  // Writes below `output_dir`. Null on failure, which is logged.
  static std::unique_ptr<BinOutput> create(const std::string& output_dir);

  // Of the file being read, before its first page.
  void set_header(const qvx_data_file_header& header, TypeCache& types);

  // A schemas block that stood outside the pages.
  void set_schemas(std::span<const qvx_schema_id> ids);

  // Unpacks a page and saves it. False when it cannot be unpacked; that it could not be saved is told by
  // finish(), since the pages behind it may still be.
  [[nodiscard]] bool process_page_block(const PageBlock& block);

  // Completes the files. False when a page could not be saved.
  [[nodiscard]] bool finish();

 private:
  BinOutput(ClientIdPtr identity, DataWriterPtr writer);

  bool make_page(std::uint64_t size);
  bool unpack(const PageBlock& block);

  ClientIdPtr identity_;
  DataWriterPtr writer_;
  Decompressor decompressor_;
  PagePtr page_;  // kept while the next page has the same size
  qvx_schema_id counters_schema_id_;
  std::optional<SchemasFollower> schemas_;
  bool failed_ = false;
};

}  // namespace qvx
