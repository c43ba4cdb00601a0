// The pages of one source and tag. Blocks are collected in a page; a page that is full is saved through the
// writer of data files, as it is or compressed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "examples/recording.h"
#include "qvx/data/encoded_payload.h"
#include "qvx/data/page.h"
#include "qvx/data/source.h"
#include "qvx/data/write/data_writer.h"
#include "qvx/host/adapters.h"

namespace qvx::examples {

// What the pages of a stream look like.
struct PageForm {
  qvx_source source;
  std::span<const qvx_adapter_info> adapters;  // of the host, for its node information file
  qvx_schema_id counters_schema_id;
  std::uint32_t block_size = 0;  // of the data blocks that a page is saved in
  std::uint32_t num_blocks = 1;  // of a page
  ByteArray lead;                // what every page begins with
};

// Faults are exceptions. What was not saved is lost with the stream.
class PageStream {
 public:
  // With an encoding every page becomes a page block, and data blocks are packed with as many of these as
  // they take. The writer must outlive the stream.
  PageStream(qvx_data_writer& writer, PageForm form, std::optional<qvx_encoding> encoding);

  // Times are microseconds and never run backwards. With pages of several data blocks, each block that is
  // appended is one.
  void append(Bytes block, std::uint64_t time);

  // Saves everything when the oldest of it is at least as old as this.
  void save_if_older(std::uint64_t time);
  void save();

 private:
  void finish_page();
  void pack_page();
  void write(qvx_data_page& page);

  qvx_data_writer& writer_;
  PageForm form_;
  std::optional<qvx_encoding> encoding_;
  PagePtr page_;              // that is being filled
  PagePtr packed_;            // takes the page blocks; null without an encoding
  std::uint64_t oldest_ = 0;  // time of the first block that is not saved, 0 when all are
};

}  // namespace qvx::examples
