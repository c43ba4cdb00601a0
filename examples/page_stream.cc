#include "examples/page_stream.h"

#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "qvx/data/write/page_block_writer.h"
#include "qvx/support/text.h"

namespace qvx::examples {
namespace {

// About ten compressed samples: what is saved before it is full is filled up with zeros.
constexpr std::uint32_t kPackedBlockSize = 2048;

PagePtr make_page(const PageForm& form, std::uint32_t block_size, std::uint32_t num_blocks) {
  PagePtr page = page_alloc(block_size, kPageHeaderSize + std::uint64_t{block_size} * num_blocks, {});
  if (page == nullptr) throw std::bad_alloc();
  page_set_source(*page, form.source);
  page_set_adapters(*page, form.adapters);
  page_set_schema_id(*page, form.counters_schema_id);
  return page;
}

// Appends bytes of this time; false when they do not fit.
bool add(qvx_data_page& page, Bytes bytes, std::uint64_t first, std::uint64_t last) {
  const bool is_empty = page_filled_data(page).empty();
  if (!page_consume_free_space(page, bytes)) return false;
  page_set_timestamps(page, is_empty ? first : page_first_timestamp(page), last);
  return true;
}

std::size_t room_of(const qvx_data_page& page) {
  return page_data(page).size() - page_filled_data(page).size();
}

}  // namespace

PageStream::PageStream(qvx_data_writer& writer, PageForm form, std::optional<qvx_encoding> encoding)
    : writer_(writer),
      form_(std::move(form)),
      encoding_(encoding),
      page_(make_page(form_, form_.block_size, form_.num_blocks)),
      packed_(encoding ? make_page(form_, kPackedBlockSize, 1) : nullptr) {}

void PageStream::append(Bytes block, std::uint64_t time) {
  if (room_of(*page_) < block.size()) finish_page();
  if (page_filled_data(*page_).empty()) add(*page_, form_.lead, time, time);
  if (!add(*page_, block, time, time)) throw std::length_error("a block is larger than a page");
  if (oldest_ == 0) oldest_ = time;
}

void PageStream::save_if_older(std::uint64_t time) {
  if (oldest_ != 0 && oldest_ <= time) save();
}

void PageStream::save() {
  finish_page();
  if (packed_ != nullptr) write(*packed_);
  oldest_ = 0;
}

void PageStream::finish_page() {
  if (page_filled_data(*page_).empty()) return;
  if (encoding_) {
    pack_page();
    page_reset(*page_);
  } else {
    write(*page_);
  }
}

void PageStream::pack_page() {
  const std::optional<std::vector<std::byte>> block = encode_page_block(*page_, *encoding_);
  if (!block) throw std::runtime_error("cannot compress a page");
  if (room_of(*packed_) < block->size()) write(*packed_);
  if (!add(*packed_, *block, page_first_timestamp(*page_), page_last_timestamp(*page_)))
    throw std::length_error("a page block is larger than a data block");
}

void PageStream::write(qvx_data_page& page) {
  if (!data_writer_write_page(writer_, page))
    throw std::runtime_error("cannot save data of " + std::string(field_text(form_.source.id)) + ":" +
                             std::string(field_text(form_.source.tag)));
  page_reset(page);
}

}  // namespace qvx::examples
