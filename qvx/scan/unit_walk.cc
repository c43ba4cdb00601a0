#include "qvx/scan/unit_walk.h"

#include <cinttypes>

#include "qvx/data/block.h"
#include "qvx/data/page_block.h"
#include "qvx/support/format.h"

namespace qvx {

UnitWalk::UnitWalk(TypesInForce& types, Decompressor& decompressor, Bytes unit, std::uint64_t start)
    : types_(types),
      decompressor_(decompressor),
      start_(start),
      unit_(unit),
      in_pages_(block_type_of(unit) == QVX_PAGE_BLOCK),
      pages_(unit) {
  if (!in_pages_) chain_.emplace(types_, unit, Place{start});
}

WalkStep UnitWalk::next(ScanVisitor& visitor) {
  if (!chain_) return next_page(visitor);
  const WalkStep step = chain_->next(visitor);
  if (step == WalkStep::block) return step;
  chain_.reset();
  if (!in_pages_) return step;
  page_failed_ = step == WalkStep::failed;
  return WalkStep::block;
}

WalkStep UnitWalk::next_page(ScanVisitor& visitor) {
  if (page_failed_) return WalkStep::failed;
  if (block_type_of(pages_) != QVX_PAGE_BLOCK) return WalkStep::end;
  const Place place{start_ + static_cast<std::uint64_t>(pages_.data() - unit_.data())};
  PageBlock block;
  if (!page_block_read(pages_, block)) {
    visitor.on_fault({FaultKind::page_cut, place, "A page does not fit its data block or has no end magic"});
    return WalkStep::end;
  }
  pages_ = pages_.subspan(block.total_size);
  switch (visitor.on_page(block, place)) {
    case PageUse::done:
      return WalkStep::block;
    case PageUse::failed:
      page_failed_ = true;
      return WalkStep::block;
    case PageUse::unpack:
      break;
  }
  page_ = PageBuffer();  // before the next one is allocated
  std::uint64_t size = 0;
  page_ = qvxp_uncompress_alloc(block, &size, decompressor_);
  if (page_) {
    chain_.emplace(types_, page_.bytes(), Place{place.offset, true, 0});
  } else {
    page_failed_ = true;
    visitor.on_fault({FaultKind::page_damaged, place,
                      format_text("A page of %" PRIu64 " bytes cannot be unpacked", size)});
  }
  return WalkStep::block;
}

}  // namespace qvx
