// The writer of data files: pages go in, each source gets its files, and the oldest files go when the whole
// grows beyond a limit.
//
// Nothing here throws; what fails is logged. A writer is used by one thread at a time.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "qvx/data/page.h"
#include "qvx/data/write/data_file.h"
#include "qvx/data/write/node_info.h"
#include "qvx/host/client_id.h"

struct qvx_data_writer {
  // What every new source's files take over.
  std::string root = ".";
  std::string path_template{qvx::kDefaultPathTemplate};
  std::string node_name;  // at most 64 characters
  int port = 0;
  std::uint64_t file_size_limit = std::uint64_t{128} << 20;
  std::uint64_t file_time_limit = 1800000000;  // microseconds
  qvx_schema_id counters_schema_id;
  std::array<qvx_schema_id, qvx::kEventSchemaSlots> event_schema_ids;

  bool enabled = true;
  std::uint64_t data_size_limit = 0;  // 0: none; set by data_writer_set_data_size_limit

  // The state, kept by the functions below.
  struct WrittenFile {
    std::string path;
    std::vector<std::string> below;
    qvx::FileIdentity identity;
    std::uint64_t size = 0;  // of the blocks in it
  };
  struct Source {
    qvx_data_file file;
    WrittenFile* written = nullptr;  // the entry of the open file, if that was created here
    qvx_nodeinfo_cache node_info;
  };
  std::uint64_t total_size = 0;                                   // of the blocks in the written files
  std::map<std::pair<std::string, std::string>, Source> sources;  // by source id and tag
  std::deque<WrittenFile> written_files;                          // those created here, oldest first
  std::vector<qvx_data_file*> opened;  // that hold descriptors, the one used last at the end
};

namespace qvx {

// A writer for the host of this identity, which is not kept. Null when memory is short.
qvx_data_writer* data_writer_create(const qvx_client_id_t& identity) noexcept;
// Brings the headers of the open files up to date first. Null is ignored.
void data_writer_destroy(qvx_data_writer* writer) noexcept;

struct DataWriterDelete {
  void operator()(qvx_data_writer* writer) const noexcept { data_writer_destroy(writer); }
};
using DataWriterPtr = std::unique_ptr<qvx_data_writer, DataWriterDelete>;

// Saves one page. False when it holds data that could not be saved whole; a page that is dropped because the
// writer is disabled, or because the page is empty or of another version, is no failure.
bool data_writer_write_page(qvx_data_writer& writer, const qvx_data_page& page) noexcept;

// Sets how much data the files may hold together. The limit must be larger than that of one file.
bool data_writer_set_data_size_limit(qvx_data_writer& writer, std::uint64_t limit) noexcept;

// Removes the oldest files that this writer created until what is left is within the limit.
void data_writer_enforce_data_size_limit(qvx_data_writer& writer) noexcept;

}  // namespace qvx
