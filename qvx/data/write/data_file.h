// The data file that is being written for one source: when a new one is due, what it is called, how pages
// are appended to it, and its header, which is brought up to date as the file grows.
//
// The names of files come from the source and so from data that cannot be trusted: nothing outside the root
// folder is created or changed, neither by ".." nor through a symbolic link below it. A program that is ended
// at any moment leaves files that can be read up to their last whole block: a file has its header from the
// moment it has its name, blocks are appended in one piece where the system allows it, and a header is
// rewritten in one piece. Several writers may append to one file.
//
// Times are microseconds since 1970-01-01 00:00 UTC. Nothing here throws; what fails is logged. Where a file
// is left, what fails is also noted in `lost`: some systems tell only then that data were not stored.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/data/file_header.h"
#include "qvx/data/schema_id.h"
#include "qvx/data/write/existing_file.h"
#include "qvx/data/write/known_files.h"
#include "qvx/data/write/output_folder.h"
#include "qvx/data/write/path_template.h"
#include "qvx/data/write/schemas_in_force.h"
#include "qvx/support/bytes.h"
#include "qvx/support/file_descriptor.h"

struct qvx_data_file {
  std::string root = ".";
  std::string path_template{qvx::kDefaultPathTemplate};
  std::string source_id;
  std::string source_tag;
  std::string node;
  int port = 0;
  std::uint32_t block_size = 65536;
  qvx_schema_id counters_schema_id;
  // What data at the end of the open file are read with; the header of a new file gets those it has room for.
  qvx::SchemasInForce schemas;
  // A new file is started when either is reached.
  std::uint64_t file_size_limit = std::uint64_t{128} << 20;
  std::uint64_t file_time_limit = 1800000000;  // 30 minutes

  // May be shared by several data files, or left out.
  qvx::KnownFiles* known_files = nullptr;
  qvx::MakeRoom make_room;

  // The state, kept by the functions below.
  std::string path;  // of the open file, empty when there is none
  std::uint64_t file_size = 0;
  std::uint64_t first_timestamp = 0;
  std::uint64_t last_timestamp = 0;
  std::string id;
  std::string expanded_path;       // what the template gave, before a number made the name another
  std::uint32_t number = 1;        // that it has in its name
  bool newly_created = false;      // the open file was created, not found; for the caller to clear
  bool lost = false;               // an open file could not be completed; for the caller to clear
  bool report_errors = true;       // cleared by a failing create or open until an open succeeds
  bool header_is_behind = false;   // bytes were appended since the last header update
  std::vector<std::string> below;  // the path below the root, component by component
  qvx::FileIdentity identity;      // of the open file
  qvx::FileDescriptor folder;      // that holds the open file
  qvx::FileDescriptor handle;      // for appending
};

namespace qvx {

// True when data of the time `now` does not belong into the open file.
[[nodiscard]] bool data_file_need_new_file(const qvx_data_file& file, std::uint64_t now) noexcept;

// Makes sure that a file is open for data of this time and of this file's block size and schemas: the open
// one, a new one, or one of the same name that is already there. One that is there and would make a reader
// take the data for something else is left alone: the name is then followed by "_2", "_3" and so on. False on
// failure; there is then no open file.
[[nodiscard]] bool data_file_open_for(qvx_data_file& file, std::uint64_t first_timestamp,
                                      std::uint64_t last_timestamp) noexcept;

// Appends bytes and then zeros. Returns how many of them the file took; of fewer than all only whole blocks
// stay. 0 when no file is open.
[[nodiscard]] std::uint64_t data_file_append(qvx_data_file& file, Bytes bytes,
                                             std::uint64_t zeros = 0) noexcept;

// Writes size and last timestamp into the header of the open file, unless that header is not valid.
[[nodiscard]] bool data_file_update_header(qvx_data_file& file) noexcept;

// Updates the header of the open file, if there is one, and forgets the file.
void data_file_close(qvx_data_file& file) noexcept;

// Forgets the open file.
void data_file_forget(qvx_data_file& file) noexcept;

// Gives the descriptors back; they are opened again when they are needed.
void data_file_release(qvx_data_file& file) noexcept;

// The path that the template gives for the current state, under the root; nothing when the time cannot be
// formatted or memory is short.
[[nodiscard]] std::optional<std::string> data_file_expand_path(const qvx_data_file& file) noexcept;

// The folder of the open file, with "." and ".." resolved.
std::string data_file_folder(const qvx_data_file& file);

// A path under a root, as text.
std::string join_path(std::string_view root, std::string_view path);

}  // namespace qvx
