#include "qvx/reader/bin_visitor.h"

#include <utility>

namespace qvx {

BinVisitor::BinVisitor(Run& run, const char* path, FileScan& scan, std::unique_ptr<BinOutput> output)
    : PrintVisitor(run, path), scan_(scan), output_(std::move(output)) {}

std::unique_ptr<BinVisitor> BinVisitor::create(Run& run, const char* path, FileScan& scan) {
  std::unique_ptr<BinOutput> output = BinOutput::create(run.options.output_dir);
  if (output == nullptr) return nullptr;
  return std::unique_ptr<BinVisitor>(new BinVisitor(run, path, scan, std::move(output)));
}

PageUse BinVisitor::on_page(const PageBlock& block, const Place&) {
  if (!has_header_) output_->set_header(scan_.header());
  has_header_ = true;
  return output_->process_page_block(block) ? PageUse::done : PageUse::failed;
}

}  // namespace qvx
