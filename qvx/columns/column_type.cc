#include "qvx/columns/column_type.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "qvx/support/json_text.h"
#include "qvx/support/saturate.h"

namespace qvx::columns {
namespace {

const char* simple_format(ColumnKind kind) {
  switch (kind) {
    case ColumnKind::boolean:
      return "b";
    case ColumnKind::u8:
      return "C";
    case ColumnKind::i8:
      return "c";
    case ColumnKind::u16:
      return "S";
    case ColumnKind::i16:
      return "s";
    case ColumnKind::u32:
      return "I";
    case ColumnKind::i32:
      return "i";
    case ColumnKind::u64:
      return "L";
    case ColumnKind::i64:
      return "l";
    case ColumnKind::f32:
      return "f";
    case ColumnKind::f64:
      return "g";
    case ColumnKind::timestamp:
      return "tsu:UTC";
    case ColumnKind::text:
      return "u";
    case ColumnKind::dictionary:
      return "i";  // of the indices
    case ColumnKind::record:
      return "+s";
    case ColumnKind::labels:
      return "+m";
    case ColumnKind::list:
      break;
  }
  return "+w:";
}

using Metadata = std::span<const std::pair<std::string, std::string>>;

// Counts and lengths are 32-bit numbers of this processor.
std::string encoded(Metadata metadata) {
  std::string bytes;
  const auto put_number = [&bytes](std::size_t number) {
    const auto value = static_cast<std::int32_t>(number);
    bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
  };
  if (metadata.empty()) return bytes;
  put_number(metadata.size());
  for (const auto& [key, value] : metadata) {
    put_number(key.size());
    bytes += key;
    put_number(value.size());
    bytes += value;
  }
  return bytes;
}

// What a schema node owns besides itself.
struct SchemaNode {
  std::string format;
  std::string name;
  std::string metadata;
  std::vector<std::unique_ptr<ArrowSchema>> children;
  std::vector<ArrowSchema*> child_pointers;
  std::unique_ptr<ArrowSchema> dictionary;
};

void release_schema(ArrowSchema* schema) {
  auto* const node = static_cast<SchemaNode*>(schema->private_data);
  for (const auto& child : node->children)
    if (child->release != nullptr) child->release(child.get());
  if (node->dictionary != nullptr && node->dictionary->release != nullptr)
    node->dictionary->release(node->dictionary.get());
  delete node;
  schema->release = nullptr;
}

// Owns what is built until it is handed out.
struct SchemaRelease {
  ArrowSchema* schema;
  ~SchemaRelease() {
    if (schema != nullptr) release_schema(schema);
  }
};

// Neither the entries of a map nor their keys may be null.
enum class Within { record, map, entries };

void export_node(const std::string& name, std::string format, Metadata metadata,
                 std::span<const ColumnType> children, Within within, bool nullable, ArrowSchema* out);

void export_column(const ColumnType& type, Within parent, bool is_first, ArrowSchema* out) {
  std::string format = simple_format(type.kind);
  if (type.kind == ColumnKind::list) format += std::to_string(type.count);
  const Within within = type.kind == ColumnKind::labels ? Within::map
                        : parent == Within::map         ? Within::entries
                                                        : Within::record;
  const bool nullable = parent == Within::record || (parent == Within::entries && !is_first);
  export_node(type.name, std::move(format), type.metadata, type.children, within, nullable, out);
  if (type.kind == ColumnKind::dictionary) {
    SchemaRelease guard{out};
    auto values = std::make_unique<ArrowSchema>();
    export_node("", "u", {}, {}, Within::record, true, values.get());
    static_cast<SchemaNode*>(out->private_data)->dictionary = std::move(values);
    out->dictionary = static_cast<SchemaNode*>(out->private_data)->dictionary.get();
    guard.schema = nullptr;
  }
}

void export_node(const std::string& name, std::string format, Metadata metadata,
                 std::span<const ColumnType> children, Within within, bool nullable, ArrowSchema* out) {
  auto owned = std::make_unique<SchemaNode>();
  SchemaNode& node = *owned;
  node.format = std::move(format);
  node.name = name;
  node.metadata = encoded(metadata);
  *out = {};
  out->private_data = owned.release();
  out->release = release_schema;
  SchemaRelease guard{out};
  for (const ColumnType& child : children) {
    node.children.push_back(std::make_unique<ArrowSchema>());
    export_column(child, within, &child == children.data(), node.children.back().get());
  }
  for (const auto& child : node.children)
    node.child_pointers.push_back(child.get());
  out->format = node.format.c_str();
  out->name = node.name.c_str();
  out->metadata = node.metadata.empty() ? nullptr : node.metadata.data();
  out->flags = nullable ? ARROW_FLAG_NULLABLE : 0;
  out->n_children = static_cast<std::int64_t>(node.child_pointers.size());
  out->children = node.child_pointers.data();
  guard.schema = nullptr;
}

}  // namespace

bool have_same_values(const ColumnType& a, const ColumnType& b) {
  return a.kind == b.kind && (a.kind != ColumnKind::list || a.count == b.count) &&
         std::equal(a.children.begin(), a.children.end(), b.children.begin(), b.children.end(),
                    [](const ColumnType& x, const ColumnType& y) {
                      return x.name == y.name && have_same_values(x, y);
                    });
}

std::size_t value_size(ColumnKind kind) {
  switch (kind) {
    case ColumnKind::boolean:
    case ColumnKind::u8:
    case ColumnKind::i8:
      return 1;
    case ColumnKind::u16:
    case ColumnKind::i16:
      return 2;
    case ColumnKind::u32:
    case ColumnKind::i32:
    case ColumnKind::f32:
    case ColumnKind::dictionary:
      return 4;
    case ColumnKind::u64:
    case ColumnKind::i64:
    case ColumnKind::f64:
    case ColumnKind::timestamp:
      return 8;
    case ColumnKind::text:
    case ColumnKind::list:
    case ColumnKind::record:
    case ColumnKind::labels:
      break;
  }
  return 0;
}

std::uint64_t row_bytes(const ColumnType& type, std::uint64_t text_bytes) {
  if (type.kind == ColumnKind::text)
    return saturating_add(4, std::max<std::uint64_t>(text_bytes, type.count));
  std::uint64_t bytes = std::max<std::uint64_t>(1, value_size(type.kind));
  for (const ColumnType& child : type.children)
    bytes = saturating_add(bytes, row_bytes(child, text_bytes));
  return type.kind == ColumnKind::list ? saturating_multiply(bytes, std::max<std::uint64_t>(1, type.count))
                                       : bytes;
}

std::string utf8_text(std::string_view text) {
  if (text.find('\0') == text.npos && json::is_valid_utf8(text)) return std::string(text);
  constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
  std::string valid;
  while (!text.empty()) {
    std::size_t size = std::min<std::size_t>(4, text.size());
    while (size > 0 && !json::is_valid_utf8(text.substr(0, size)))
      --size;
    if (size == 0 || text.front() == '\0') {
      valid += kReplacement;
      text.remove_prefix(1);
    } else {
      size = text.substr(0, size).find('\0') == text.npos ? size : text.find('\0');
      valid += text.substr(0, size);
      text.remove_prefix(size);
    }
  }
  return valid;
}

void export_schema(std::span<const ColumnType> columns, Metadata metadata, ArrowSchema* out) {
  export_node("", "+s", metadata, columns, Within::record, false, out);
}

}  // namespace qvx::columns
