#include "qvx/reader/page_schemas.h"

#include <algorithm>
#include <string_view>

#include "qvx/data/block.h"
#include "qvx/scan/visitor.h"
#include "qvx/support/log_recorder.h"

namespace qvx {
namespace {

SchemasInForce listed(std::span<const qvx_schema_id> ids) {
  SchemasInForce schemas;
  std::copy_n(ids.begin(), std::min(ids.size(), schemas.ids.size()), schemas.ids.begin());
  return schemas;
}

class LastSchemas final : public ScanVisitor {
 public:
  explicit LastSchemas(SchemasInForce& to) : to_(to) {}

  void on_schemas(const SchemasBlock& block) override { to_ = listed(block.ids); }
  void on_fault(const Fault&) override {}

 private:
  SchemasInForce& to_;
};

// Whether anything behind the first block may be a schemas block, which its fourth byte tells. Pages that
// have no such byte need not be gone through.
bool may_name_schemas(Bytes page) {
  return as_text(page).find('S', kMagicSize) != std::string_view::npos;
}

}  // namespace

SchemasFollower::SchemasFollower(TypeCache& cache, const qvx_data_file_header& header)
    : in_force_(header.event_schema_ids), types_{cache, header.counters_schema_id, {}} {}

void SchemasFollower::set(std::span<const qvx_schema_id> ids) {
  in_force_ = listed(ids);
}

PageSchemas SchemasFollower::follow(Bytes page) {
  PageSchemas schemas;
  schemas.before = in_force_;
  const qvx_block_type first = block_type_of(page);
  const LogRecorder quiet(QVX_LOG_DEBUG);
  if (first == QVX_SCHEMAS_BLOCK) {
    // Also when its schemas cannot be had here.
    in_force_ = schemas_of_block(page);
    if (may_name_schemas(page)) walk(page);
  } else if (first == QVX_EVENTS_BLOCK && may_name_schemas(page) && load_types()) {
    walk(page);
  }
  schemas.after = in_force_;
  return schemas;
}

bool SchemasFollower::load_types() {
  if (types_of_ == in_force_) return true;
  types_of_.reset();
  if (!types_.cache.load(in_force_.ids, types_.counters_schema, types_.types)) return false;
  types_of_ = in_force_;
  return true;
}

void SchemasFollower::walk(Bytes page) {
  LastSchemas visitor(in_force_);
  ChainWalk chain(types_, page, Place{});
  WalkStep step = WalkStep::block;
  while (step == WalkStep::block)
    step = chain.next(visitor);
  types_of_.reset();
  if (step == WalkStep::end) types_of_ = in_force_;
}

}  // namespace qvx
