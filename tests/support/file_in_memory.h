// Data files that are in memory through the walk and the printing visitor: what a run over one file prints,
// without a file system, so that millions of damaged files can be read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "qvx/data/encoded_payload.h"
#include "qvx/reader/options.h"
#include "qvx/reader/print_visitor.h"
#include "qvx/scan/file_scan.h"
#include "qvx/support/bytes.h"
#include "qvx/support/output_sink.h"

namespace qvx::test {

inline ReaderOptions reader_options(OutputFormat format, std::string schema_path) {
  ReaderOptions options;
  if (!reader_options_set_defaults(options) || !append(options.include_counters, "*")) throw std::bad_alloc();
  options.schema_path = std::move(schema_path);
  options.format = format;
  return options;
}

// One way to read, kept over the files so that schemas are loaded once.
class FilesInMemory {
 public:
  // Pages that state more bytes than `largest_page` are passed over.
  explicit FilesInMemory(ReaderOptions options, std::uint64_t largest_page = ~std::uint64_t{0})
      : options_(std::move(options)), largest_page_(largest_page), sink_(out_), run_(options_, sink_) {
    // A sink that could not write once writes nothing any more; what a test makes short of memory is not the
    // output.
    constexpr std::size_t kUsualOutput = 16384;
    out_.reserve(kUsualOutput);
  }

  struct Result {
    std::string_view out;  // until the next call
    bool failed;
    std::uint64_t faults;
  };

  // Schemas come from the schema folder, or are those given, whatever the header names.
  Result read(Bytes file, const TypeSet* types = nullptr) {
    out_.clear();
    Visitor visitor(run_, largest_page_);
    FileScan scan(run_.types);
    scan.open(file);
    bool readable = scan.read_header(visitor);
    if (readable && types != nullptr) {
      scan.types().types = *types;
    } else if (readable) {
      readable = scan.load_types(visitor);
    }
    if (readable) {
      while (scan.next(visitor)) {
      }
    }
    static_cast<void>(sink_.flush());
    return {out_, scan.failed(), visitor.faults};
  }

  const ReaderOptions& options() const { return options_; }

 private:
  // Counts what goes to standard error.
  struct Visitor : PrintVisitor {
    Visitor(Run& run, std::uint64_t largest_page) : PrintVisitor(run, "file"), largest_page_(largest_page) {}
    PageUse on_page(const PageBlock& page, const Place&) override {
      const bool is_large = encoded_uncompressed_size(page.header.encoding, page.data) > largest_page_;
      return is_large ? PageUse::done : PageUse::unpack;
    }
    void on_fault(const Fault& fault) override {
      ++faults;
      PrintVisitor::on_fault(fault);
    }
    void file_error(const char*) override { static_cast<void>(run_.sink.flush()); }
    std::uint64_t faults = 0;

   private:
    std::uint64_t largest_page_;
  };

  const ReaderOptions options_;
  const std::uint64_t largest_page_;
  std::string out_;
  OutputSink sink_;
  Run run_;
};

}  // namespace qvx::test
