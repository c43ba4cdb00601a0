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

BinOutput& BinVisitor::output() {
  if (!has_header_) output_->set_header(scan_.header(), run_.types);
  has_header_ = true;
  return *output_;
}

void BinVisitor::on_schemas(const SchemasBlock& block) {
  output().set_schemas(block.ids);
}

PageUse BinVisitor::on_page(const PageBlock& block, const Place&) {
  return output().process_page_block(block) ? PageUse::done : PageUse::failed;
}

}  // namespace qvx
