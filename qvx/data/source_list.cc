#include "qvx/data/source_list.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <cstdint>
#include <memory>
#include <new>
#include <string_view>

#include "qvx/data/source.h"
#include "qvx/support/file_descriptor.h"
#include "qvx/support/log.h"
#include "qvx/support/text.h"

namespace qvx {
namespace {

constexpr std::size_t kMaxSourceLength = kSourceIdSize - 1;
constexpr std::size_t kLineSize = 1024;  // 1023 characters and a terminator

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, CloseFile>;

// Null for anything but a regular file: a device or a pipe may have no end.
FilePtr open_regular(const char* path) {
  FileDescriptor descriptor = open_to_read(path, O_NONBLOCK);
  struct stat status {};
  if (!descriptor || fstat(descriptor.get(), &status) != 0 || !S_ISREG(status.st_mode)) return nullptr;
  FilePtr file(fdopen(descriptor.get(), "r"));
  if (file != nullptr) static_cast<void>(descriptor.release());
  return file;
}

// Calls `use` with every line, up to its line end or its first NUL, until it returns false. False when
// the file cannot be opened or read.
template <typename Use>
bool for_each_line(const char* path, Use use) {
  const FilePtr file = open_regular(path);
  char line[kLineSize];
  while (file != nullptr && std::fgets(line, sizeof line, file.get()) != nullptr) {
    const std::string_view text(line);
    if (!use(text.substr(0, text.find_first_of("\r\n")))) return true;
  }
  return file != nullptr && std::ferror(file.get()) == 0;
}

void append_source(SourceList& list, std::string_view source) {
  list.emplace_back(source.substr(0, kMaxSourceLength));
}

struct Range {
  std::optional<std::string_view> base;
  std::int32_t first = 0;
  std::int32_t last = 0;
};

// Digits only, and all of the text.
bool read_number(std::string_view text, std::int32_t& number) {
  if (text.empty() || text.front() == '-') return false;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size();
}

bool read_bounds(std::string_view text, std::size_t dash, Range& range) {
  return read_number(text.substr(0, dash), range.first) && read_number(text.substr(dash + 1), range.last) &&
         range.first <= range.last;
}

std::optional<Range> read_format(std::string_view text) {
  constexpr auto kNone = std::string_view::npos;
  Range range;
  const std::size_t dash = text.find('-');
  if (dash == kNone) {
    range.first = 1;
    if (!read_number(text, range.last) || range.last < 1) return std::nullopt;
    return range;
  }
  const std::size_t open = text.find('[');
  if (open != kNone && text.find(']') != kNone) {
    // The name before the bracket may have a dash of its own.
    const std::string_view inside = text.substr(open + 1);
    const std::size_t inner_dash = inside.find('-');
    const bool closes = !inside.empty() && inside.back() == ']';
    if (inner_dash == kNone || !closes) return std::nullopt;
    if (!read_bounds(inside.substr(0, inside.size() - 1), inner_dash, range)) return std::nullopt;
    range.base = text.substr(0, open);
    return range;
  }
  if (!read_bounds(text, dash, range)) return std::nullopt;
  return range;
}

// Whether a line of the file looks like fabscan output; nothing, after the message, when it cannot be read.
std::optional<bool> looks_like_fabscan(const char* path) {
  bool found = false;
  const bool readable = for_each_line(path, [&](std::string_view line) {
    found = line.find("H-") != std::string_view::npos || line.find("S-") != std::string_view::npos;
    return !found;
  });
  if (!readable) {
    QVX_LOG(QVX_LOG_ERROR, "[source] Failed to open file: %s", path);
    return std::nullopt;
  }
  return found;
}

std::optional<SourceList> out_of_memory() {
  QVX_LOG(QVX_LOG_ERROR, "[source] Failed to allocate memory");
  return std::nullopt;
}

}  // namespace

std::optional<SourceList> source_list_from_arg(const char* text) noexcept {
  struct stat status {};
  if (stat(text, &status) != 0) return source_list_from_format(text);
  const std::optional<bool> is_fabscan = looks_like_fabscan(text);
  if (!is_fabscan) return std::nullopt;
  return *is_fabscan ? source_list_from_fabscan_file(text) : source_list_from_text_file(text);
}

std::optional<SourceList> source_list_from_format(const char* text) noexcept {
  const std::optional<Range> range = read_format(text);
  if (!range) {
    QVX_LOG(QVX_LOG_ERROR, "[source] Invalid source format: %s", text);
    return std::nullopt;
  }
  try {
    std::array<char, kSourceIdSize> base;
    const std::string given(range->base.value_or(""));
    if (!source_id_resolve(base, given.c_str())) return std::nullopt;
    SourceList list;
    for (std::int64_t i = range->first; i <= range->last; ++i)
      append_source(list, std::string(field_text(base)).append("_").append(std::to_string(i)));
    return list;
  } catch (const std::bad_alloc&) {
    return out_of_memory();
  }
}

std::optional<SourceList> source_list_from_text_file(const char* path) noexcept {
  try {
    SourceList list;
    const bool readable = for_each_line(path, [&](std::string_view line) {
      if (!line.empty()) append_source(list, line);
      return true;
    });
    if (!readable) {
      QVX_LOG(QVX_LOG_ERROR, "[source] Failed to open text file: %s", path);
      return std::nullopt;
    }
    return list;
  } catch (const std::bad_alloc&) {
    return out_of_memory();
  }
}

std::optional<SourceList> source_list_from_fabscan_file(const char* path) noexcept {
  try {
    SourceList list;
    const bool readable = for_each_line(path, [&](std::string_view line) {
      const std::size_t open = line.find('(');
      if (open == std::string_view::npos) return true;
      const std::size_t close = line.find(')', open);
      if (close != std::string_view::npos) append_source(list, line.substr(open + 1, close - open - 1));
      return true;
    });
    if (!readable) {
      QVX_LOG(QVX_LOG_ERROR, "[source] Failed to open fabscan file: %s", path);
      return std::nullopt;
    }
    return list;
  } catch (const std::bad_alloc&) {
    return out_of_memory();
  }
}

bool file_is_fabscan_output(const char* path) noexcept {
  return looks_like_fabscan(path).value_or(false);
}

void source_list_print(std::FILE* stream, const char* name, const SourceList& list) {
  for (std::size_t i = 0; i < list.size(); ++i)
    std::fprintf(stream, "%s[%zu] = %s\n", name, i, list[i].c_str());
}

}  // namespace qvx
