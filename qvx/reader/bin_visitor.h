// The output format `bin` as a visitor: compressed pages are saved as new data files, everything else is
// printed.
#pragma once

#include <memory>

#include "qvx/reader/bin_output.h"
#include "qvx/reader/print_visitor.h"
#include "qvx/scan/file_scan.h"

namespace qvx {

class BinVisitor final : public PrintVisitor {
 public:
  // Null on failure, which is logged. The scan and the path outlive the visitor.
  static std::unique_ptr<BinVisitor> create(Run& run, const char* path, FileScan& scan);

  void on_schemas(const SchemasBlock& block) override;
  PageUse on_page(const PageBlock& block, const Place& place) override;

  bool complete() override { return output_->finish(); }

 private:
  BinVisitor(Run& run, const char* path, FileScan& scan, std::unique_ptr<BinOutput> output);

  BinOutput& output();

  FileScan& scan_;
  std::unique_ptr<BinOutput> output_;
  bool has_header_ = false;
};

}  // namespace qvx
