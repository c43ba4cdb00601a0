// The writer of data files: pages go in, each source gets its files, and the oldest files go when the whole
// grows beyond a limit.
//
// Nothing here throws; what fails is logged. A writer is used by one thread at a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "qvx/data/page.h"
#include "qvx/data/write/data_file.h"
#include "qvx/data/write/known_files.h"
#include "qvx/data/write/node_info.h"
#include "qvx/data/write/schemas_in_force.h"
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
    std::pair<std::string, std::string> key;  // source id and tag
    qvx_data_file file;
    qvx_nodeinfo_cache node_info;
  };
  qvx::KnownFiles known_files;
  // The sources met last, the latest at the end. One that was let go finds its files by their paths.
  std::list<Source> sources;
  std::map<std::pair<std::string, std::string>, std::list<Source>::iterator> sources_by_key;
  bool lost = false;                   // something that was saved before is lost; cleared by those who tell
  std::vector<qvx_data_file*> opened;  // that hold descriptors, the one used last at the end
  // Kept while there is a data size limit.
  std::uint64_t total_size = 0;          // of the blocks in the written files
  std::list<WrittenFile> written_files;  // those created here, oldest first
  std::map<std::pair<std::uint64_t, std::uint64_t>, std::list<WrittenFile>::iterator> written_by_number;
};

namespace qvx {

// How many sources a writer keeps in mind.
inline constexpr std::size_t kMaxSourcesKept = 2048;

// A writer for the host of this identity, which is not kept. Null when memory is short.
[[nodiscard]] qvx_data_writer* data_writer_create(const qvx_client_id_t& identity) noexcept;
// Does what data_writer_finish does first. Null is ignored.
void data_writer_destroy(qvx_data_writer* writer) noexcept;

struct DataWriterDelete {
  void operator()(qvx_data_writer* writer) const noexcept { data_writer_destroy(writer); }
};
using DataWriterPtr = std::unique_ptr<qvx_data_writer, DataWriterDelete>;

// Saves one page. False when it holds data that could not be saved whole, when its node information could
// not be written, or when something that was saved before turned out to be lost; a page that is dropped
// because the writer is disabled, or because the page is empty or of another version, is no failure.
//
// The second form is for pages out of a file: `schemas` tells which event schemas they are read with. The
// first goes by what the page's own first block says, else by what its source had before.
[[nodiscard]] bool data_writer_write_page(qvx_data_writer& writer, const qvx_data_page& page) noexcept;
[[nodiscard]] bool data_writer_write_page(qvx_data_writer& writer, const qvx_data_page& page,
                                          const PageSchemas& schemas) noexcept;

// Completes all files and gives their descriptors back. False when something that was saved is lost.
[[nodiscard]] bool data_writer_finish(qvx_data_writer& writer) noexcept;

// Sets how much data the files created from now on may hold together. The limit must be larger than that of
// one file.
[[nodiscard]] bool data_writer_set_data_size_limit(qvx_data_writer& writer, std::uint64_t limit) noexcept;

// Removes the oldest files that this writer created until what is left is within the limit. Bytes that it
// appended to other files do not count, and such files stay.
void data_writer_enforce_data_size_limit(qvx_data_writer& writer) noexcept;

}  // namespace qvx
