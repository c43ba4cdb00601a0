#include "qvx/reader/reader_context.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "qvx/support/format.h"
#include "qvx/support/log.h"

namespace qvx {

std::unique_ptr<ReaderContext> create_reader_context(Run& run, const char* path) {
  std::unique_ptr<ReaderContext> context(new (std::nothrow) ReaderContext(run, path));
  if (context == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to allocate reader context %s", std::strerror(errno));
    return nullptr;
  }
  errno = 0;
  context->file.reset(gzopen(path, "rb"));
  if (context->file == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to open data file %s: %s", path, std::strerror(errno));
    return nullptr;
  }
  if (run.options.format == OutputFormat::bin) {
    context->bin = BinOutput::create(run.options.output_dir);
    if (context->bin == nullptr) return nullptr;
  }
  return context;
}

int read_gzip(gzFile file, void* to, unsigned size) {
  auto* const bytes = static_cast<unsigned char*>(to);
  unsigned total = 0;
  while (total < size) {
    const int count = gzread(file, bytes + total, size - total);
    if (count > 0) total += static_cast<unsigned>(count);
    if (total == size || gzeof(file) != 0) break;
    int fault = Z_OK;
    gzerror(file, &fault);
    if (fault != Z_ERRNO || errno != EINTR) {
      if (count < 0 && total == 0) return -1;
      if (count <= 0) break;
      continue;
    }
    gzclearerr(file);
  }
  return static_cast<int>(total);
}

bool read_file_header(const char* path, Run& run, qvx_data_file_header& header) {
  const std::unique_ptr<ReaderContext> context = create_reader_context(run, path);
  if (context == nullptr) return false;
  FileHeaderBytes bytes;
  if (read_gzip(context->file.get(), bytes.data(), kFileHeaderSize) != static_cast<int>(kFileHeaderSize)) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to read header from file: %s", path);
    return false;
  }
  header = file_header_decode(bytes);
  if (!validate_header(header)) {
    QVX_LOG(QVX_LOG_ERROR, "Invalid header in file: %s", path);
    return false;
  }
  return true;
}

void file_error(ReaderContext& context, const char* format, ...) {
  context.run.sink.flush();
  std::string text = format_text("Failed processing file %s: ", context.path);
  va_list args;
  va_start(args, format);
  append_vformat(text, format, args);
  va_end(args);
  text += '\n';
  write_diagnostic(stderr, text.data(), text.size());
  std::fflush(stderr);
}

}  // namespace qvx
