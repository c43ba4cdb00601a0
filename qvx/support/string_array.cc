#include "qvx/support/string_array.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "qvx/support/log.h"

static_assert(sizeof(qvx_string_array) == 8, "the pointers follow a count of eight bytes");
static_assert(alignof(char*) <= alignof(qvx_string_array));

namespace {

char** elements(qvx_string_array* array) {
  return reinterpret_cast<char**>(array + 1);
}

char* const* elements(const qvx_string_array* array) {
  return reinterpret_cast<char* const*>(array + 1);
}

// Gives the block room for `count` pointers; the stored count stays.
bool resize(qvx_string_array** array, std::uint64_t count) {
  constexpr std::uint64_t kMost = (SIZE_MAX - sizeof(qvx_string_array)) / sizeof(char*);
  if (count > kMost) return false;
  const std::size_t size = sizeof(qvx_string_array) + static_cast<std::size_t>(count) * sizeof(char*);
  auto* const moved = static_cast<qvx_string_array*>(std::realloc(*array, size));
  if (moved == nullptr) return false;
  *array = moved;
  return true;
}

bool append_run(qvx_string_array** array, const char* text, std::size_t length) {
  if (!resize(array, (*array)->count + 1)) return false;
  char* const copy = strndup(text, length);
  if (copy == nullptr) return false;
  elements(*array)[(*array)->count++] = copy;
  return true;
}

bool is_space(char character) {
  return std::isspace(static_cast<unsigned char>(character)) != 0;
}

// The text without white space at both ends; the blanks at the end are cut off in place.
char* trim(char* text) {
  while (is_space(*text))
    ++text;
  std::size_t length = std::strlen(text);
  while (length > 0 && is_space(text[length - 1]))
    --length;
  text[length] = '\0';
  return text;
}

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

// The buffer that getline grows.
struct Line {
  Line() = default;
  ~Line() { std::free(text); }
  Line(const Line&) = delete;
  Line& operator=(const Line&) = delete;

  char* text = nullptr;
  std::size_t capacity = 0;
};

}  // namespace

qvx_string_array* qvx_string_array_create() noexcept {
  return static_cast<qvx_string_array*>(std::calloc(1, sizeof(qvx_string_array)));
}

void qvx_string_array_free(qvx_string_array* array) noexcept {
  for (char* const text : qvx::strings(array))
    std::free(text);
  std::free(array);
}

bool qvx_string_array_append(qvx_string_array** array, const char* text) noexcept {
  if (array == nullptr || *array == nullptr || text == nullptr) return false;
  return append_run(array, text, std::strlen(text));
}

bool qvx_string_array_append_all(qvx_string_array** destination, const qvx_string_array* source) noexcept {
  if (destination == nullptr || *destination == nullptr || source == nullptr) return false;
  const bool to_itself = source == *destination;
  const std::uint64_t added = source->count;
  if (!resize(destination, (*destination)->count + added)) return false;
  const qvx_string_array* const from = to_itself ? *destination : source;
  for (std::uint64_t i = 0; i < added; ++i) {
    char* const copy = strdup(elements(from)[i]);
    if (copy == nullptr) {
      qvx_string_array_free(*destination);
      *destination = nullptr;
      return false;
    }
    elements(*destination)[(*destination)->count++] = copy;
  }
  return true;
}

bool qvx_string_array_contains(const qvx_string_array* array, const char* text) noexcept {
  if (text == nullptr) return false;
  for (const char* const element : qvx::strings(array)) {
    if (std::strcmp(element, text) == 0) return true;
  }
  return false;
}

qvx_string_array* qvx_string_array_from_comma_separated(const char* text, std::size_t length) noexcept {
  qvx::StringArrayPtr array(qvx_string_array_create());
  if (array == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "Unable to create string array");
    return nullptr;
  }
  if (text == nullptr) return array.release();
  for (std::size_t start = 0; start < length;) {
    const auto* const comma = static_cast<const char*>(std::memchr(text + start, ',', length - start));
    const std::size_t end = comma == nullptr ? length : static_cast<std::size_t>(comma - text);
    if (end > start) {
      qvx_string_array* grown = array.release();
      const bool appended = append_run(&grown, text + start, end - start);
      array.reset(grown);
      if (!appended) {
        QVX_LOG(QVX_LOG_ERROR, "Unable to append string");
        return nullptr;
      }
    }
    start = end + 1;
  }
  return array.release();
}

bool qvx_string_array_remove_duplicates(qvx_string_array** array, bool sorted) noexcept {
  if (!sorted) {
    QVX_LOG(QVX_LOG_ERROR, "[%s] not implemented", "qvx_string_array_remove_duplicates");
    return false;
  }
  if (array == nullptr || *array == nullptr) return false;
  if ((*array)->count < 2) return true;
  char** const all = elements(*array);
  std::uint64_t kept = 1;
  for (std::uint64_t i = 1; i < (*array)->count; ++i) {
    if (std::strcmp(all[i], all[kept - 1]) == 0)
      std::free(all[i]);
    else
      all[kept++] = all[i];
  }
  (*array)->count = kept;
  return resize(array, kept);
}

void qvx_string_array_print(std::uint32_t level, const qvx_string_array* array, const char* label) noexcept {
  std::size_t i = 0;
  for (const char* const text : qvx::strings(array)) {
    QVX_LOG(level, "%s[%zu] = %s", label, i, text);
    ++i;
  }
}

bool qvx_string_array_load_lines(qvx_string_array** array, const char* path, const char* label) noexcept {
  if (array == nullptr || *array == nullptr || path == nullptr) return false;
  const std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path, "r"));
  if (file == nullptr) {
    QVX_LOG(QVX_LOG_INFO, "Failed to open %s file %s: %s", label != nullptr ? label : "", path,
            std::strerror(errno));
    return false;
  }
  if (label != nullptr) QVX_LOG(QVX_LOG_INFO, "Loading %s from %s", label, path);
  Line line;
  while (getline(&line.text, &line.capacity, file.get()) != -1) {
    const char* const text = trim(line.text);
    if (*text == '\0' || *text == '#') continue;
    if (!qvx_string_array_append(array, text)) return false;
  }
  return true;
}

namespace qvx {

std::span<char*> strings(qvx_string_array* array) noexcept {
  if (array == nullptr) return {};
  return {elements(array), static_cast<std::size_t>(array->count)};
}

std::span<char* const> strings(const qvx_string_array* array) noexcept {
  if (array == nullptr) return {};
  return {elements(array), static_cast<std::size_t>(array->count)};
}

std::span<char* const> strings(const StringArrayPtr& array) noexcept {
  return strings(static_cast<const qvx_string_array*>(array.get()));
}

StringArrayPtr make_string_array(std::initializer_list<const char*> texts) noexcept {
  StringArrayPtr array(qvx_string_array_create());
  for (const char* const text : texts) {
    if (!append(array, text)) return nullptr;
  }
  return array;
}

bool append(StringArrayPtr& array, const char* text) noexcept {
  qvx_string_array* grown = array.release();
  const bool appended = qvx_string_array_append(&grown, text);
  array.reset(grown);
  return appended;
}

}  // namespace qvx
