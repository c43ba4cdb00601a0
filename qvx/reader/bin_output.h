// The output format `bin`: compressed pages are unpacked and saved as new data files.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "qvx/data/file_header.h"
#include "qvx/data/page.h"
#include "qvx/data/page_block.h"
#include "qvx/data/write/data_writer.h"
#include "qvx/host/client_id.h"

namespace qvx {

// What one input file needs for it. Destroying it completes the files that it wrote.
class BinOutput {
 public:
  // Writes below `output_dir`. Null on failure, which is logged.
  static std::unique_ptr<BinOutput> create(const std::string& output_dir);

  // The files of a new source begin with the schema identifiers of the file being read.
  void set_header(const qvx_data_file_header& header);

  // Unpacks a page and saves it. False when it cannot be unpacked; that it could not be saved is told by
  // failed(), since the pages behind it may still be.
  bool process_page_block(const PageBlock& block);

  // True when a page could not be saved.
  bool failed() const { return failed_; }

 private:
  BinOutput(ClientIdPtr identity, DataWriterPtr writer);

  bool make_page(std::uint64_t size);
  bool unpack(const PageBlock& block);

  ClientIdPtr identity_;
  DataWriterPtr writer_;
  PagePtr page_;  // kept while the next page has the same size
  qvx_schema_id counters_schema_id_;
  bool failed_ = false;
};

}  // namespace qvx
