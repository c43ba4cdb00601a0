#include "qvx/data/write/data_writer.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <string>
#include <utility>

#include "qvx/data/block.h"
#include "qvx/data/source.h"
#include "qvx/support/log.h"
#include "qvx/support/text.h"

namespace qvx {
namespace {

// Many sources must not use up the descriptors of the process; each open file takes two.
constexpr std::size_t kMaxOpened = 64;

bool is_compatible(std::uint32_t version) {
  const std::uint32_t major = version & 0xFF;
  const std::uint32_t minor = version >> 8 & 0xFF;
  return major == 1 && minor > 6;
}

qvx_data_writer::Source& find_source(qvx_data_writer& writer, const qvx_data_page& page) {
  const qvx_source source = page_source(page);
  std::pair<std::string, std::string> key(field_text(source.id), field_text(source.tag));
  if (const auto found = writer.sources.find(key); found != writer.sources.end()) return found->second;
  // Complete before it is entered, so that memory running short leaves no file with the wrong root.
  qvx_data_writer::Source made;
  qvx_data_file& file = made.file;
  file.root = writer.root;
  file.path_template = writer.path_template;
  file.node = writer.node_name;
  file.port = writer.port;
  file.source_id = key.first;
  file.source_tag = key.second;
  file.counters_schema_id = writer.counters_schema_id;
  file.event_schema_ids = writer.event_schema_ids;
  file.file_size_limit = writer.file_size_limit;
  file.file_time_limit = writer.file_time_limit;
  return writer.sources.emplace(std::move(key), std::move(made)).first->second;
}

// The identifiers that a schemas block carries; those that it is too short for are empty.
std::array<qvx_schema_id, kEventSchemaSlots> schema_ids_in(Bytes block) {
  std::array<qvx_schema_id, kEventSchemaSlots> ids;
  for (std::size_t slot = 0; slot < ids.size(); ++slot) {
    const std::size_t end = kSchemasHeaderSize + (slot + 1) * sizeof(qvx_schema_id);
    if (block.size() >= end) ids[slot] = schemas_block_id(block, slot);
  }
  return ids;
}

// Takes a new value, and closes the file, whose header has the old one.
template <typename Value>
void change(qvx_data_file& file, Value& value, const Value& to) {
  if (value == to) return;
  data_file_close(file);
  value = to;
}

// Takes over what the page's first block says about schemas; false when it is none that can be saved.
bool take_schemas(qvx_data_file& file, const qvx_data_page& page, Bytes data) {
  switch (block_type_of(data)) {
    case QVX_SCHEMAS_BLOCK:
      change(file, file.event_schema_ids, schema_ids_in(data));
      return true;
    case QVX_COUNTERS_BLOCK:
      change(file, file.counters_schema_id, page_schema_id(page));
      return true;
    case QVX_EVENTS_BLOCK:
      QVX_LOG(QVX_LOG_WARNING, "[data_writer] First data block is QVXE. No schema ids could be extracted.");
      return true;
    case QVX_PAGE_BLOCK:
      QVX_LOG(QVX_LOG_WARNING, "[data_writer] First data block is QVXP.");
      return true;
    case QVX_CNTX_BLOCK:
      QVX_LOG(QVX_LOG_WARNING, "[data_writer] First data block is CNTX.");
      return true;
    default:
      QVX_LOG(QVX_LOG_ERROR, "[data_writer] Unrecognized type of data page. Cannot save to file.");
      return false;
  }
}

// Notes that the file is in use and lets the one go that was not used for the longest time.
void keep_opened(qvx_data_writer& writer, qvx_data_file& file) {
  std::vector<qvx_data_file*>& opened = writer.opened;
  std::erase(opened, &file);
  if (opened.size() >= kMaxOpened) {
    data_file_release(*opened.front());
    opened.erase(opened.begin());
  }
  opened.push_back(&file);
}

// Enters a new file into the list. True when the open file is new.
bool note_new_file(qvx_data_writer& writer, qvx_data_writer::Source& source) {
  qvx_data_file& file = source.file;
  if (source.written != nullptr && source.written->identity != file.identity) source.written = nullptr;
  if (!file.newly_created) return false;
  writer.written_files.push_back({file.path, file.below, file.identity, 0});
  file.newly_created = false;
  source.written = &writer.written_files.back();
  return true;
}

bool save(qvx_data_writer& writer, qvx_data_writer::Source& source, const qvx_data_page& page,
          const PageBlocks& blocks) {
  qvx_data_file& file = source.file;
  change(file, file.block_size, static_cast<std::uint32_t>(blocks.block_size));
  keep_opened(writer, file);
  if (!data_file_open_for(file, page_first_timestamp(page), page_last_timestamp(page))) return false;
  const bool is_new = note_new_file(writer, source);
  const std::uint64_t written = data_file_append(file, blocks.data, blocks.padding);
  if (file.header_is_behind) data_file_update_header(file);
  if (is_new) nodeinfo_write(source.node_info, data_file_folder(file).c_str(), page);
  writer.total_size += written;
  if (source.written != nullptr) source.written->size += written;
  if (writer.data_size_limit != 0) data_writer_enforce_data_size_limit(writer);
  return written == blocks.data.size() + blocks.padding;
}

bool write_page(qvx_data_writer& writer, const qvx_data_page& page) {
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
  if (!take_schemas(source.file, page, blocks.data)) return false;
  if (blocks.block_size >= kBlockSizeEnd) {
    QVX_LOG(QVX_LOG_ERROR, "[data_writer] Blocks of %lu bytes could not be read. Cannot save to file.",
            blocks.block_size);
    return false;
  }
  return save(writer, source, page, blocks);
}

// Removes the file if it is still the one that was written.
void remove_file(const qvx_data_writer& writer, const qvx_data_writer::WrittenFile& written) {
  FileDescriptor folder;
  FileIdentity identity;
  const bool found = open_folder_below(writer.root, written.below, false, folder) == FolderFault::none &&
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
  for (auto& [key, source] : writer->sources) {
    if (source.file.header_is_behind) data_file_update_header(source.file);
  }
  delete writer;
}

bool data_writer_write_page(qvx_data_writer& writer, const qvx_data_page& page) noexcept {
  if (!writer.enabled) return true;
  try {
    return write_page(writer, page);
  } catch (const std::bad_alloc&) {
    QVX_LOG(QVX_LOG_ERROR, "[data_writer] Failed to save data page: %s", std::strerror(ENOMEM));
    return false;
  }
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
    for (auto& [key, source] : writer.sources) {
      if (source.written != &oldest) continue;
      source.written = nullptr;
      // A file that is still being written is then written no more.
      if (source.file.identity == oldest.identity) data_file_forget(source.file);
    }
    writer.total_size -= std::min(oldest.size, writer.total_size);
    writer.written_files.pop_front();
  }
}

}  // namespace qvx
