#include "qvx/scan/visitor.h"

namespace qvx {

const char* fault_kind_name(FaultKind kind) noexcept {
  switch (kind) {
    case FaultKind::open_failed:
      return "open_failed";
    case FaultKind::header_short:
      return "header_short";
    case FaultKind::header_invalid:
      return "header_invalid";
    case FaultKind::block_size_invalid:
      return "block_size_invalid";
    case FaultKind::types_failed:
      return "types_failed";
    case FaultKind::no_memory:
      return "no_memory";
    case FaultKind::no_block_header:
      return "no_block_header";
    case FaultKind::read_failed:
      return "read_failed";
    case FaultKind::page_damaged:
      return "page_damaged";
    case FaultKind::unknown_block:
      return "unknown_block";
    case FaultKind::unknown_type:
      return "unknown_type";
    case FaultKind::schemas_block_invalid:
      return "schemas_block_invalid";
    case FaultKind::schemas_failed:
      return "schemas_failed";
    case FaultKind::block_failed:
      return "block_failed";
    case FaultKind::page_cut:
      return "page_cut";
    case FaultKind::events_cut:
      return "events_cut";
    case FaultKind::record_cut:
      return "record_cut";
    case FaultKind::metrics_damaged:
      return "metrics_damaged";
  }
  return "unknown";
}

}  // namespace qvx
