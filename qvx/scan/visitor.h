// What a walk over a data file hands out: typed blocks, in the order in which they stand there, and faults.
//
// Everything handed over is valid during the call only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "qvx/data/block.h"
#include "qvx/data/file_header.h"
#include "qvx/data/page_block.h"
#include "qvx/data/schema/schema.h"
#include "qvx/data/schema_id.h"
#include "qvx/scan/type_cache.h"
#include "qvx/support/bytes.h"

namespace qvx {

// Where something stands: the offset in the file, unpacked if the whole file is compressed; and inside a
// compressed page, whose page block stands there, the offset in the unpacked page as well.
struct Place {
  std::uint64_t offset = 0;
  bool in_page = false;
  std::uint64_t page_offset = 0;
};

enum class FaultKind {
  // The file fails.
  open_failed,
  header_short,
  header_invalid,
  block_size_invalid,
  types_failed,
  no_memory,
  no_block_header,  // fewer bytes than a magic at the end of the file
  read_failed,      // of the system or of a file that is compressed as a whole
  page_damaged,     // cannot be unpacked
  unknown_block,
  unknown_type,
  schemas_block_invalid,
  schemas_failed,  // those that a schemas block names cannot be loaded
  block_failed,    // follows the fault that caused it, or the visitor's own
  // Reading goes on; something was passed over.
  page_cut,    // does not fit its data block or has no end magic: the rest of the data block
  events_cut,  // fewer records than the block states
  // Told by readers of typed records: fields that lie behind the end of what there is, a block that is
  // damaged from somewhere on.
  record_cut,
  metrics_damaged,
};

const char* fault_kind_name(FaultKind kind) noexcept;

// The words are one line without its end. Of a header, of schemas and of a page that are at fault, the
// library has logged the details before.
struct Fault {
  FaultKind kind;
  Place place;
  std::string words;
};

struct EventsBlock {
  EventHeader header;
  LoadedSchema& schema;
  std::size_t type_index;           // in schema.events->types
  const qvx_type_definition& type;  // records are type.size bytes
  std::size_t count;                // records that are wholly there
  Bytes records;                    // from the first record to the end of the bytes at hand
  Place place;
};

struct CountersBlock {
  CountersHeader header;
  LoadedSchema& schema;
  Bytes block;  // from its magic to the end of the bytes at hand
  Place place;
};

struct MetricsBlock {
  Bytes block;  // from its magic to the end of the bytes at hand
  Place place;
};

// The types that it names are in force from here on.
struct SchemasBlock {
  std::span<const qvx_schema_id> ids;
  const TypeSet& types;
  Place place;
};

struct BlobBlock {
  BlobHeader header;
  Bytes data;  // as much as is there
  Place place;
};

enum class PageUse {
  unpack,  // the walk unpacks the page and goes through its blocks
  done,    // the visitor has dealt with it
  failed,  // the visitor could not
};

// Where a result is asked for, false fails the file.
class ScanVisitor {
 public:
  virtual ~ScanVisitor() = default;

  // The header as it was read, before anything of it is checked.
  virtual void on_header(const qvx_data_file_header&) {}

  virtual PageUse on_page(const PageBlock&, const Place&) { return PageUse::unpack; }

  // Before the type of an events block is looked up.
  virtual void on_event_header(const EventHeader&) {}
  virtual bool on_events(const EventsBlock&) { return true; }
  virtual bool on_counters(const CountersBlock&) { return true; }
  virtual void on_metrics(const MetricsBlock&) {}
  virtual void on_schemas(const SchemasBlock&) {}
  // False makes it an unknown block, which fails the file.
  virtual bool on_blob(const BlobBlock&) { return false; }

  virtual void on_fault(const Fault&) = 0;
};

}  // namespace qvx
