#include "qvx/data/write/data_writer.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <new>
#include <string>
#include <utility>

#include "qvx/data/block.h"
#include "qvx/data/source.h"
#include "qvx/support/log.h"
#include "qvx/support/text.h"

namespace qvx {
namespace {

// Each open file takes two descriptors.
constexpr std::size_t kMaxOpened = 64;

bool is_compatible(std::uint32_t version) {
  const std::uint32_t major = version & 0xFF;
  const std::uint32_t minor = version >> 8 & 0xFF;
  return major == 1 && minor > 6;
}

// Gives the descriptors of the file back that was not used for the longest time; the one in use is last.
bool release_oldest(qvx_data_writer& writer, std::size_t left) {
  if (writer.opened.size() <= left) return false;
  qvx_data_file& oldest = *writer.opened.front();
  writer.opened.erase(writer.opened.begin());
  data_file_release(oldest);
  writer.lost |= std::exchange(oldest.lost, false);
  return true;
}

// Completes the file of a source and gives its descriptors back.
void complete(qvx_data_writer& writer, qvx_data_file& file) {
  if (file.header_is_behind && !data_file_update_header(file)) file.lost = true;
  data_file_release(file);
  writer.lost |= std::exchange(file.lost, false);
}

// Lets the source go that was not met for the longest time.
void drop_oldest_source(qvx_data_writer& writer) {
  qvx_data_writer::Source& oldest = writer.sources.front();
  std::erase(writer.opened, &oldest.file);
  complete(writer, oldest.file);
  writer.sources_by_key.erase(oldest.key);
  writer.sources.pop_front();
}

// The source of a page, moved behind all others.
qvx_data_writer::Source& find_source(qvx_data_writer& writer, const qvx_data_page& page) {
  const qvx_source source = page_source(page);
  std::pair<std::string, std::string> key(field_text(source.id), field_text(source.tag));
  if (const auto found = writer.sources_by_key.find(key); found != writer.sources_by_key.end()) {
    writer.sources.splice(writer.sources.end(), writer.sources, found->second);
    return *found->second;
  }
  // Complete before it is entered, so that memory running short leaves no file with the wrong root.
  std::list<qvx_data_writer::Source> made(1);
  qvx_data_file& file = made.front().file;
  file.root = writer.root;
  file.path_template = writer.path_template;
  file.node = writer.node_name;
  file.port = writer.port;
  file.source_id = key.first;
  file.source_tag = key.second;
  file.counters_schema_id = writer.counters_schema_id;
  file.schemas = SchemasInForce(writer.event_schema_ids);
  file.file_size_limit = writer.file_size_limit;
  file.file_time_limit = writer.file_time_limit;
  file.known_files = &writer.known_files;
  file.make_room = [&writer] { return release_oldest(writer, 1); };
  made.front().key = key;
  writer.sources_by_key.emplace(std::move(key), made.begin());
  writer.sources.splice(writer.sources.end(), made);
  return writer.sources.back();
}

// Takes a new value, and closes the file, whose header has the old one.
template <typename Value>
void change(qvx_data_file& file, Value& value, const Value& to) {
  if (value == to) return;
  data_file_close(file);
  value = to;
}

// Takes over what the page is read with; false when it is none that can be saved.
bool take_schemas(qvx_data_file& file, const qvx_data_page& page, Bytes data, const PageSchemas* schemas) {
  const qvx_block_type first = block_type_of(data);
  switch (first) {
    case QVX_SCHEMAS_BLOCK:
      change(file, file.schemas, schemas_of_block(data));
      return true;
    case QVX_COUNTERS_BLOCK:
      change(file, file.counters_schema_id, page_schema_id(page));
      break;
    case QVX_EVENTS_BLOCK:
      QVX_LOG(QVX_LOG_WARNING, "[data_writer] First data block is QVXE. No schema ids could be extracted.");
      break;
    case QVX_PAGE_BLOCK:
      QVX_LOG(QVX_LOG_WARNING, "[data_writer] First data block is QVXP.");
      break;
    case QVX_CNTX_BLOCK:
      QVX_LOG(QVX_LOG_WARNING, "[data_writer] First data block is CNTX.");
      break;
    default:
      QVX_LOG(QVX_LOG_ERROR, "[data_writer] Unrecognized type of data page. Cannot save to file.");
      return false;
  }
  if (schemas != nullptr) change(file, file.schemas, schemas->before);
  return true;
}

// Notes that the file is in use and lets the one go that was not used for the longest time.
void keep_opened(qvx_data_writer& writer, qvx_data_file& file) {
  std::erase(writer.opened, &file);
  release_oldest(writer, kMaxOpened - 1);
  writer.opened.push_back(&file);
}

// Enters a new file into the list.
void list_new_file(qvx_data_writer& writer, const qvx_data_file& file) {
  if (writer.data_size_limit == 0) return;
  writer.written_files.push_back({file.path, file.below, file.identity, 0});
  const auto entry = std::prev(writer.written_files.end());
  // A file of the same number as one before took the place of that one, which is gone.
  writer.written_by_number.insert_or_assign({file.identity.device, file.identity.number}, entry);
}

// Counts what was appended to a file of the list.
void count_written(qvx_data_writer& writer, const qvx_data_file& file, std::uint64_t written,
                   const FileIdentity& before) {
  const auto found = writer.written_by_number.find({file.identity.device, file.identity.number});
  if (found == writer.written_by_number.end() || found->second->identity != before) return;
  found->second->identity = file.identity;
  found->second->size += written;
  writer.total_size += written;
}

bool save(qvx_data_writer& writer, qvx_data_writer::Source& source, const qvx_data_page& page,
          const PageBlocks& blocks, const PageSchemas* schemas) {
  qvx_data_file& file = source.file;
  change(file, file.block_size, static_cast<std::uint32_t>(blocks.block_size));
  keep_opened(writer, file);
  if (!data_file_open_for(file, page_first_timestamp(page), page_last_timestamp(page))) return false;
  const bool is_new = std::exchange(file.newly_created, false);
  if (is_new) list_new_file(writer, file);
  const FileIdentity before = file.identity;
  const std::uint64_t written = data_file_append(file, blocks.data, blocks.padding);
  bool saved = written == blocks.data.size() + blocks.padding;
  if (schemas != nullptr && written != 0) file.schemas = schemas->after;
  if (file.header_is_behind) saved &= data_file_update_header(file);
  if (is_new && file.folder) {
    saved &=
        nodeinfo_write_in(source.node_info, file.folder.get(), data_file_folder(file), page, file.make_room);
  }
  count_written(writer, file, written, before);
  if (writer.data_size_limit != 0) data_writer_enforce_data_size_limit(writer);
  return saved;
}

bool write_page(qvx_data_writer& writer, const qvx_data_page& page, const PageSchemas* schemas) {
  if (!is_compatible(page_version(page))) {
    QVX_LOG(QVX_LOG_WARNING, "[data_writer] Received incompatible data page. Skipping.");
    return true;
  }
  const PageBlocks blocks = page_blocks(page);
  if (blocks.data.empty()) {
    QVX_LOG(QVX_LOG_DEBUG, "[data_writer] Received empty data page. Skipping.");
    return true;
  }
  qvx_data_writer::Source& source = find_source(writer, page);
  if (writer.sources.size() > kMaxSourcesKept) drop_oldest_source(writer);
  if (!take_schemas(source.file, page, blocks.data, schemas)) return false;
  if (blocks.block_size < kMinBlockSize || blocks.block_size >= kBlockSizeEnd) {
    // A page too small for a block holds no record, so little is lost.
    const std::uint32_t level = blocks.block_size < kMinBlockSize ? QVX_LOG_DEBUG : QVX_LOG_ERROR;
    QVX_LOG(level, "[data_writer] Blocks of %lu bytes could not be read. Cannot save to file.",
            blocks.block_size);
    return false;
  }
  // More of them than a header names only the page's own first block can name.
  const bool all_named = source.file.schemas.fit_header() || block_type_of(blocks.data) == QVX_SCHEMAS_BLOCK;
  const bool saved = save(writer, source, page, blocks, schemas) && all_named;
  writer.lost |= std::exchange(source.file.lost, false);
  return !std::exchange(writer.lost, false) && saved;
}

bool write_page_safely(qvx_data_writer& writer, const qvx_data_page& page,
                       const PageSchemas* schemas) noexcept {
  if (!writer.enabled) return true;
  try {
    return write_page(writer, page, schemas);
  } catch (const std::bad_alloc&) {
    QVX_LOG(QVX_LOG_ERROR, "[data_writer] Failed to save data page: %s", std::strerror(ENOMEM));
    return false;
  }
}

// Removes the file if it is still the one that was written.
void remove_file(qvx_data_writer& writer, const qvx_data_writer::WrittenFile& written) {
  const MakeRoom make_room = [&writer] { return release_oldest(writer, 0); };
  FileDescriptor folder;
  FileIdentity identity;
  const bool found =
      open_folder_below(writer.root, written.below, false, folder, make_room) == FolderFault::none &&
      look_at(folder.get(), written.below.back(), identity) == EntryKind::file &&
      identity == written.identity;
  if (!found) {
    QVX_LOG(QVX_LOG_ERROR, "[data_writer] File doesn't exist: %s", written.path.c_str());
  } else if (unlinkat(folder.get(), written.below.back().c_str(), 0) != 0) {
    QVX_LOG(QVX_LOG_ERROR, "[data_writer] Failed to remove file: %s", written.path.c_str());
  }
}

}  // namespace

qvx_data_writer* data_writer_create(const qvx_client_id_t& identity) noexcept {
  try {
    auto writer = std::make_unique<qvx_data_writer>();
    writer->node_name = field_text(identity.host_name);
    writer->port = identity.port;
    writer->opened.reserve(kMaxOpened);
    return writer.release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void data_writer_destroy(qvx_data_writer* writer) noexcept {
  if (writer == nullptr) return;
  static_cast<void>(data_writer_finish(*writer));
  delete writer;
}

bool data_writer_finish(qvx_data_writer& writer) noexcept {
  for (qvx_data_writer::Source& source : writer.sources)
    complete(writer, source.file);
  writer.opened.clear();
  return !std::exchange(writer.lost, false);
}

bool data_writer_write_page(qvx_data_writer& writer, const qvx_data_page& page) noexcept {
  return write_page_safely(writer, page, nullptr);
}

bool data_writer_write_page(qvx_data_writer& writer, const qvx_data_page& page,
                            const PageSchemas& schemas) noexcept {
  return write_page_safely(writer, page, &schemas);
}

bool data_writer_set_data_size_limit(qvx_data_writer& writer, std::uint64_t limit) noexcept {
  if (limit <= writer.file_size_limit) {
    QVX_LOG(QVX_LOG_ERROR, "[data_writer] data size limit must be larger than file size limit");
    return false;
  }
  writer.data_size_limit = limit;
  return true;
}

void data_writer_enforce_data_size_limit(qvx_data_writer& writer) noexcept {
  if (writer.data_size_limit == 0) {
    QVX_LOG(QVX_LOG_ERROR, "[data_writer] Cannot enforce data size limit, limit unset.");
    return;
  }
  while (writer.total_size > writer.data_size_limit && !writer.written_files.empty()) {
    const qvx_data_writer::WrittenFile& oldest = writer.written_files.front();
    try {
      remove_file(writer, oldest);
    } catch (const std::bad_alloc&) {
      return;
    }
    // A file that is still being written is then written no more.
    for (qvx_data_writer::Source& source : writer.sources) {
      if (source.file.identity == oldest.identity) data_file_forget(source.file);
    }
    const auto by_number = writer.written_by_number.find({oldest.identity.device, oldest.identity.number});
    if (by_number != writer.written_by_number.end() && by_number->second == writer.written_files.begin())
      writer.written_by_number.erase(by_number);
    writer.total_size -= std::min(oldest.size, writer.total_size);
    writer.written_files.pop_front();
  }
}

}  // namespace qvx
