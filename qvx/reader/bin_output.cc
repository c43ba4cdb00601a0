#include "qvx/reader/bin_output.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <new>
#include <utility>

#include "qvx/data/write/page_block_writer.h"
#include "qvx/support/log.h"

namespace qvx {
namespace {

constexpr const char* kPageName = "file-reader";

}  // namespace

BinOutput::BinOutput(ClientIdPtr identity, DataWriterPtr writer)
    : identity_(std::move(identity)), writer_(std::move(writer)) {}

std::unique_ptr<BinOutput> BinOutput::create(const std::string& output_dir) {
  ClientIdPtr identity(qvx_client_id_create());
  if (identity == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to create client identity: %s", std::strerror(errno));
    return nullptr;
  }
  DataWriterPtr writer(data_writer_create(*identity));
  if (writer == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to create data writer: %s", std::strerror(ENOMEM));
    return nullptr;
  }
  writer->root = output_dir;
  return std::unique_ptr<BinOutput>(new BinOutput(std::move(identity), std::move(writer)));
}

void BinOutput::set_header(const qvx_data_file_header& header, TypeCache& types) {
  writer_->counters_schema_id = header.counters_schema_id;
  counters_schema_id_ = header.counters_schema_id;
  schemas_.emplace(types, header);
}

void BinOutput::set_schemas(std::span<const qvx_schema_id> ids) {
  schemas_->set(ids);
}

bool BinOutput::process_page_block(const PageBlock& block) {
  const std::uint64_t size = encoded_uncompressed_size(block.header.encoding, block.data);
  if (!make_page(size)) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to allocate data block of size %" PRIu64 ": %s", size,
            std::strerror(ENOMEM));
    return false;
  }
  if (!unpack(block)) {
    page_.reset();
    return false;
  }
  page_set_schema_id(*page_, counters_schema_id_);
  qvxp_header_source(block, *page_);
  page_set_timestamps(*page_, block.header.first_timestamp, block.header.last_timestamp);
  const PageSchemas schemas = schemas_->follow(page_filled_data(*page_));
  if (!data_writer_write_page(*writer_, *page_, schemas)) failed_ = true;
  return true;
}

bool BinOutput::finish() {
  if (!data_writer_finish(*writer_)) failed_ = true;
  return !failed_;
}

// Makes sure that the page has a data area of this size and is empty.
bool BinOutput::make_page(std::uint64_t size) {
  if (page_ != nullptr && page_size(*page_) == size + kPageHeaderSize) {
    page_reset(*page_);
    return true;
  }
  page_.reset();
  qvx_page_alloc_params params;
  params.name = kPageName;
  page_ = page_alloc(static_cast<std::uint32_t>(size), size + kPageHeaderSize, params);
  return page_ != nullptr;
}

// Unpacks into the page itself: a second copy would double the memory that a large page needs.
bool BinOutput::unpack(const PageBlock& block) {
  const std::span<std::byte> area = page_data(*page_);
  const Decompressed result = decompressor_.decompress(block.header.encoding, block.data, area);
  if (!result.ok) return false;
  // Behind a stream that ends early the page reads as zero. Those zeros are not filled in: the page is saved
  // padded to its block, and a size that is only claimed is not touched. A page of nothing but zeros, though,
  // is not an empty one.
  const std::size_t filled = std::min(std::max<std::size_t>(result.produced, 1), area.size());
  page_set_filled_bytes(*page_, kPageHeaderSize + filled);
  return true;
}

}  // namespace qvx
