#include "qvx/metrics/labels_block.h"

#include <stdexcept>
#include <string>

#include "qvx/metrics/wire.h"
#include "qvx/support/bytes.h"
#include "qvx/support/log.h"

namespace qvx::metrics {
namespace {

// Debug lines only while a caller is named.
#define QVX_TRACE_LABELS(...)                                    \
  do {                                                           \
    if (caller_ != nullptr) QVX_LOG(QVX_LOG_DEBUG, __VA_ARGS__); \
  } while (false)

[[noreturn]] void fail(const char* text) {
  QVX_LOG(QVX_LOG_ERROR, "[qvx labels block] parse_labels_block: %s", text);
  throw std::runtime_error(text);
}

// Reads the values of one block; `pos` stays at or below `size`.
class LabelsReader {
 public:
  LabelsReader(const std::byte* data, std::size_t size, std::size_t pos, const char* caller,
               std::vector<EncodedLabelValue>& values)
      : data_(data), size_(size), pos_(pos), caller_(caller), values_(values) {}

  std::size_t pos() const { return pos_; }

  void read_references(std::size_t count) {
    if (count > left()) fail("insufficient data for 'L' encoding");
    for (std::size_t i = 0; i < count; ++i) {
      const std::uint64_t id = byte_at(pos_++);
      QVX_TRACE_LABELS("[qvx labels block] L label value id [%lu]: %lu", i, id);
      values_.push_back({EncodedLabelValue::kReference, id, {}});
    }
    QVX_TRACE_LABELS("[qvx labels block] after decoding L: %lu", pos_);
  }

  void read_inline_texts(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      if (left() < 1) fail("insufficient data for 'I' encoding length");
      const std::size_t length = byte_at(pos_);
      if (1 + length > left()) fail("insufficient data for 'I' encoding string");
      const std::string_view text = text_at(pos_ + 1, length);
      QVX_TRACE_LABELS("[qvx labels block] I label value [%lu]: '%.*s'", i, static_cast<int>(length),
                       text.data());
      values_.push_back({EncodedLabelValue::kInlineText, 0, text});
      pos_ += 1 + length;
    }
    QVX_TRACE_LABELS("[qvx labels block] after decoding I: %lu", pos_);
  }

  void read_mixed(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      if (left() < 1) fail("insufficient data for 'M' encoding sub-type");
      const char encoding = static_cast<char>(byte_at(pos_));
      if (encoding == wire::kInlineTexts) {
        read_mixed_text(i);
      } else if (encoding == wire::kReferences) {
        read_mixed_reference(i);
      } else {
        QVX_LOG(QVX_LOG_ERROR, "[qvx labels block] parse_labels_block: invalid sub-encoding type '%c'",
                encoding);
        throw std::runtime_error("invalid sub-encoding type");
      }
    }
    QVX_TRACE_LABELS("[qvx labels block] after decoding M: %lu", pos_);
  }

 private:
  std::size_t left() const { return size_ - pos_; }
  std::uint8_t byte_at(std::size_t at) const { return load_le<std::uint8_t>(data_ + at); }
  std::string_view text_at(std::size_t at, std::size_t length) const {
    return as_text(Bytes(data_ + at, length));
  }

  void read_mixed_text(std::size_t index) {
    if (left() < 2) fail("insufficient data for 'M/I' encoding length");
    const std::size_t length = byte_at(pos_ + 1);
    if (2 + length > left()) fail("insufficient data for 'M/I' encoding string");
    const std::string_view text = text_at(pos_ + 2, length);
    QVX_TRACE_LABELS("[qvx labels block] parsed M/I label value [%lu]: '%.*s'", index,
                     static_cast<int>(length), text.data());
    values_.push_back({EncodedLabelValue::kInlineText, 0, text});
    pos_ += 2 + length;
  }

  void read_mixed_reference(std::size_t index) {
    if (left() < 2) fail("insufficient data for 'M/L' encoding id");
    const std::uint64_t id = byte_at(pos_ + 1);
    QVX_TRACE_LABELS("[qvx labels block] parsed M/L label value id [%lu]: %lu", index, id);
    values_.push_back({EncodedLabelValue::kReference, id, {}});
    pos_ += 2;
  }

  const std::byte* data_;
  std::size_t size_;
  std::size_t pos_;
  const char* caller_;
  std::vector<EncodedLabelValue>& values_;
};

#undef QVX_TRACE_LABELS

std::string_view referenced_text(std::uint64_t id, const StringTable& label_values) {
  if (label_values.empty()) {
    QVX_LOG(QVX_LOG_ERROR, "[qvx labels block] decode_label_value: empty label_values array");
    throw std::runtime_error("empty label_values array");
  }
  if (id >= label_values.size()) {
    QVX_LOG(QVX_LOG_ERROR, "[qvx labels block] decode_label_value: invalid label id: %lu (max=%lu)", id,
            label_values.size());
    throw std::runtime_error("invalid label id");
  }
  if (label_values[id].empty()) {
    QVX_LOG(QVX_LOG_ERROR, "[qvx labels block] decode_label_value: empty string at label_values[%lu]", id);
    throw std::runtime_error("invalid label value");
  }
  return label_values[id];
}

}  // namespace

const char* label_value_type_text(std::uint32_t type) {
  switch (type) {
    case EncodedLabelValue::kReference:
      return "label_value_id";
    case EncodedLabelValue::kInlineText:
      return "label_value";
    default:
      return "unknown";
  }
}

std::size_t parse_labels_block(const std::byte* data, const std::byte* data_end, std::size_t start_offset,
                               std::uint64_t& label_set_id_out, std::vector<EncodedLabelValue>& values_out,
                               const char* caller) {
  values_out.clear();
  if (data == nullptr || data_end == nullptr || data >= data_end) {
    QVX_LOG(QVX_LOG_ERROR, "[qvx labels block] parse_labels_block: invalid data pointers");
    throw std::runtime_error("invalid data pointers in parse_labels_block");
  }
  const auto size = static_cast<std::size_t>(data_end - data);
  if (size <= start_offset) {
    QVX_LOG(QVX_LOG_ERROR,
            "[qvx labels block] parse_labels_block: start_offset (%lu) exceeds data size (%lu)", start_offset,
            size);
    throw std::runtime_error("start_offset exceeds data size");
  }
  if (wire::kLabelsHeaderSize > size - start_offset) fail("insufficient data for header");

  const std::byte* const header = data + start_offset;
  label_set_id_out = load_le<std::uint8_t>(header + wire::kLabelSetIdAt);
  const std::size_t count = load_le<std::uint8_t>(header + wire::kLabelCountAt);
  const auto encoding = load_le<char>(header + wire::kLabelEncodingAt);
  if (caller != nullptr) {
    QVX_LOG(
        QVX_LOG_DEBUG,
        "[qvx labels block] parse_labels_block: header - label_set_id=%lu, encoded_label_value_count=%lu, "
        "encoding_type=%c, called by %s",
        label_set_id_out, count, encoding, caller);
  }
  if (encoding != wire::kInlineTexts && encoding != wire::kReferences && encoding != wire::kMixed) {
    QVX_LOG(QVX_LOG_ERROR, "[qvx labels block] parse_labels_block: invalid encoding type '%c'", encoding);
    throw std::runtime_error("invalid encoding type");
  }
  values_out.reserve(count);
  LabelsReader reader(data, size, start_offset + wire::kLabelsHeaderSize, caller, values_out);
  switch (encoding) {
    case wire::kReferences:
      reader.read_references(count);
      break;
    case wire::kInlineTexts:
      reader.read_inline_texts(count);
      break;
    default:
      reader.read_mixed(count);
      break;
  }
  if (values_out.size() != count) {
    QVX_LOG(QVX_LOG_ERROR, "[qvx labels block] parse_labels_block: processed %lu labels, expected %lu",
            values_out.size(), count);
    throw std::runtime_error("label count mismatch");
  }
  return reader.pos();
}

std::string_view decode_label_value(const EncodedLabelValue& value, const StringTable& label_values) {
  switch (value.type) {
    case EncodedLabelValue::kInlineText:
      return value.label_value;
    case EncodedLabelValue::kReference:
      try {
        return referenced_text(value.label_value_id, label_values);
      } catch (const std::exception& fault) {
        QVX_LOG(QVX_LOG_ERROR, "[qvx labels block] decode_label_value: failed to parse label_id '%lu': %s",
                value.label_value_id, fault.what());
        throw std::runtime_error("invalid label id format");
      }
    default:
      QVX_LOG(QVX_LOG_ERROR, "[qvx labels block] decode_label_value: unknown label key type: '%s'",
              label_value_type_text(value.type));
      throw std::runtime_error("unknown label key type");
  }
}

std::vector<std::string_view> decode_label_values(const std::vector<EncodedLabelValue>& values,
                                                  const StringTable& label_values) {
  std::vector<std::string_view> texts;
  texts.reserve(values.size());
  for (const EncodedLabelValue& value : values) {
    try {
      texts.push_back(decode_label_value(value, label_values));
    } catch (const std::exception& fault) {
      const std::size_t index = texts.size();
      QVX_LOG(QVX_LOG_ERROR, "[qvx labels block] decode_label_values: failed to decode label %lu: %s", index,
              fault.what());
      throw std::runtime_error("Failed to decode label value at index " + std::to_string(index) + ": " +
                               fault.what());
    }
  }
  return texts;
}

}  // namespace qvx::metrics
