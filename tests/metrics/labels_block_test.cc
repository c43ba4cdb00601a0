#include "qvx/metrics/labels_block.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "qvx/support/bytes.h"
#include "tests/metrics/cntx_builder.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/log_capture.h"

namespace qvx::metrics {
namespace {

using namespace test;
using Messages = std::vector<std::string>;

struct Parsed {
  std::size_t end = 0;
  std::uint64_t set = 0;
  std::vector<EncodedLabelValue> values;
  std::string fault;
};

// Parses a labels block at an offset of bytes that end at a guard page; the texts are not looked at later.
Parsed parse(std::string_view bytes, std::size_t offset = 0, const char* caller = "unknown") {
  const GuardedBuffer buffer(bytes);
  Parsed parsed;
  try {
    parsed.end = parse_labels_block(buffer.data(), buffer.data() + buffer.size(), offset, parsed.set,
                                    parsed.values, caller);
  } catch (const std::runtime_error& fault) {
    parsed.fault = fault.what();
  }
  return parsed;
}

std::string parse_fault(std::string_view bytes, std::size_t offset = 0) {
  return parse(bytes, offset).fault;
}

// The texts of a block that outlives them.
std::vector<std::string_view> texts_of(const std::string& bytes) {
  std::uint64_t set = 0;
  std::vector<EncodedLabelValue> values;
  const Bytes block = as_bytes(bytes);
  parse_labels_block(block.data(), block.data() + block.size(), 0, set, values, "unknown");
  std::vector<std::string_view> texts;
  for (const EncodedLabelValue& value : values)
    texts.push_back(value.label_value);
  return texts;
}

TEST(ParseLabelsBlock, ReferencesThatEndWithTheDataAreRead) {
  const Parsed parsed = parse("ab" + labels_l(9, {3, 0, 255}), 2);
  EXPECT_EQ(parsed.fault, "");
  EXPECT_EQ(parsed.end, 2u + 6u);
  EXPECT_EQ(parsed.set, 9u);
  ASSERT_EQ(parsed.values.size(), 3u);
  EXPECT_EQ(parsed.values[0].type, 0u);
  EXPECT_EQ(parsed.values[0].label_value_id, 3u);
  EXPECT_EQ(parsed.values[2].label_value_id, 255u);
}

TEST(ParseLabelsBlock, OneReferenceTooFewIsInsufficientData) {
  LogCapture log;
  EXPECT_EQ(parse_fault(labels_header(0, 3, 'L') + "\x01\x02"), "insufficient data for 'L' encoding");
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            Messages{"[qvx labels block] parse_labels_block: insufficient data for 'L' encoding"});
}

TEST(ParseLabelsBlock, InlineTextsMayBeEmpty) {
  const std::string bytes = labels_i(1, {"", "node7", ""});
  EXPECT_EQ(parse(bytes).end, 3u + 1u + 6u + 1u);
  EXPECT_EQ(texts_of(bytes), (std::vector<std::string_view>{"", "node7", ""}));
  EXPECT_EQ(decode_label_value({EncodedLabelValue::kInlineText, 0, ""}, {}), "");
}

TEST(ParseLabelsBlock, MixedValuesKeepTheirOrder) {
  const std::string bytes = labels_m(0, {mixed_text("a"), mixed_id(200), mixed_text(""), mixed_id(0)});
  std::uint64_t set = 0;
  std::vector<EncodedLabelValue> values;
  const Bytes block = as_bytes(bytes);
  EXPECT_EQ(parse_labels_block(block.data(), block.data() + block.size(), 0, set, values, "unknown"), 12u);
  ASSERT_EQ(values.size(), 4u);
  EXPECT_EQ(values[0].type, EncodedLabelValue::kInlineText);
  EXPECT_EQ(values[0].label_value, "a");
  EXPECT_EQ(values[1].type, EncodedLabelValue::kReference);
  EXPECT_EQ(values[1].label_value_id, 200u);
  EXPECT_EQ(values[2].type, EncodedLabelValue::kInlineText);
  EXPECT_EQ(values[3].label_value_id, 0u);
}

TEST(ParseLabelsBlock, MixedValueOfEitherKindMayEndWithTheData) {
  EXPECT_EQ(parse(labels_m(0, {mixed_text("ab")})).end, 3u + 4u);
  EXPECT_EQ(parse(labels_m(0, {mixed_id(7)})).end, 3u + 2u);
}

TEST(ParseLabelsBlock, NoValuesEndBehindTheHeaderInEveryEncoding) {
  for (const char encoding : {'L', 'I', 'M'}) {
    const Parsed parsed = parse("....." + labels_header(7, 0, encoding), 5);
    EXPECT_EQ(parsed.fault, "");
    EXPECT_EQ(parsed.end, 8u);
    EXPECT_TRUE(parsed.values.empty());
  }
}

TEST(ParseLabelsBlock, UnknownEncodingsAreRefused) {
  LogCapture log;
  EXPECT_EQ(parse_fault(labels_header(0, 0, 'X')), "invalid encoding type");
  EXPECT_EQ(parse_fault(labels_header(0, 1, 'M') + "Q1"), "invalid sub-encoding type");
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            (Messages{"[qvx labels block] parse_labels_block: invalid encoding type 'X'",
                      "[qvx labels block] parse_labels_block: invalid sub-encoding type 'Q'"}));
}

TEST(ParseLabelsBlock, HeaderThatIsCutIsInsufficientData) {
  LogCapture log;
  EXPECT_EQ(parse_fault("xx" + labels_header(0, 0, 'L').substr(0, 2), 2), "insufficient data for header");
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            Messages{"[qvx labels block] parse_labels_block: insufficient data for header"});
}

TEST(ParseLabelsBlock, PointersAndOffsetAreChecked) {
  LogCapture log;
  std::uint64_t set = 0;
  std::vector<EncodedLabelValue> values(1);
  const std::string bytes = labels_l(0, {1});
  const std::byte* const data = as_bytes(bytes).data();
  EXPECT_THROW(parse_labels_block(nullptr, data, 0, set, values, "unknown"), std::runtime_error);
  EXPECT_TRUE(values.empty());
  EXPECT_THROW(parse_labels_block(data, nullptr, 0, set, values, "unknown"), std::runtime_error);
  EXPECT_THROW(parse_labels_block(data, data, 0, set, values, "unknown"), std::runtime_error);
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            Messages(3, "[qvx labels block] parse_labels_block: invalid data pointers"));
  log.clear();
  EXPECT_EQ(parse_fault(""), "invalid data pointers in parse_labels_block");
  EXPECT_EQ(parse_fault(bytes, 4), "start_offset exceeds data size");
  EXPECT_EQ(parse_fault(bytes, 0xFFFFFFFFFFFFFFFF), "start_offset exceeds data size");
  EXPECT_EQ(log.texts(QVX_LOG_ERROR).at(1),
            "[qvx labels block] parse_labels_block: start_offset (4) exceeds data size (4)");
}

TEST(ParseLabelsBlock, EachCutOfAValueHasItsMessage) {
  const std::pair<std::string, std::string> faults[] = {
      {labels_header(0, 1, 'I'), "insufficient data for 'I' encoding length"},
      {labels_header(0, 1, 'I') + "\x02x", "insufficient data for 'I' encoding string"},
      {labels_header(0, 1, 'M'), "insufficient data for 'M' encoding sub-type"},
      {labels_header(0, 1, 'M') + "I", "insufficient data for 'M/I' encoding length"},
      {labels_header(0, 1, 'M') + "I\x02x", "insufficient data for 'M/I' encoding string"},
      {labels_header(0, 1, 'M') + "L", "insufficient data for 'M/L' encoding id"},
  };
  for (const auto& [bytes, text] : faults) {
    LogCapture log;
    EXPECT_EQ(parse_fault(bytes), text);
    EXPECT_EQ(log.texts(QVX_LOG_ERROR), Messages{"[qvx labels block] parse_labels_block: " + text});
  }
}

TEST(ParseLabelsBlock, FaultKeepsTheValuesBeforeIt) {
  const Parsed parsed = parse(labels_header(0, 3, 'M') + mixed_id(1) + mixed_id(2) + "L");
  EXPECT_EQ(parsed.fault, "insufficient data for 'M/L' encoding id");
  EXPECT_EQ(parsed.values.size(), 2u);
}

TEST(ParseLabelsBlock, EachEncodingIsTracedWithItsCaller) {
  LogCapture log;
  parse(labels_l(1, {7}), 0, "Histogram::parse");
  parse(labels_i(2, {"t"}));
  parse(labels_m(3, {mixed_text("u"), mixed_id(4)}));
  EXPECT_EQ(log.texts(QVX_LOG_DEBUG),
            (Messages{"[qvx labels block] parse_labels_block: header - label_set_id=1, "
                      "encoded_label_value_count=1, encoding_type=L, called by Histogram::parse",
                      "[qvx labels block] L label value id [0]: 7", "[qvx labels block] after decoding L: 4",
                      "[qvx labels block] parse_labels_block: header - label_set_id=2, "
                      "encoded_label_value_count=1, encoding_type=I, called by unknown",
                      "[qvx labels block] I label value [0]: 't'", "[qvx labels block] after decoding I: 5",
                      "[qvx labels block] parse_labels_block: header - label_set_id=3, "
                      "encoded_label_value_count=2, encoding_type=M, called by unknown",
                      "[qvx labels block] parsed M/I label value [0]: 'u'",
                      "[qvx labels block] parsed M/L label value id [1]: 4",
                      "[qvx labels block] after decoding M: 8"}));
}

TEST(ParseLabelsBlock, NoCallerMeansNoTrace) {
  LogCapture log;
  EXPECT_EQ(parse(labels_m(3, {mixed_text("u"), mixed_id(4)}), 0, nullptr).end, 8u);
  EXPECT_TRUE(log.messages().empty());
}

TEST(ParseLabelsBlock, EveryTruncationIsAFault) {
  LogCapture log(QVX_LOG_ERROR);
  for (const std::string& bytes : {labels_l(0, {1, 2, 3}), labels_i(0, {"abc", "", "d"}),
                                   labels_m(0, {mixed_text("abc"), mixed_id(3)})}) {
    ASSERT_EQ(parse_fault(bytes), "");
    for (std::size_t size = 0; size < bytes.size(); ++size)
      EXPECT_NE(parse_fault(std::string_view(bytes).substr(0, size)), "") << size;
  }
}

TEST(DecodeLabelValue, ReferenceGivesTheTableText) {
  EXPECT_EQ(decode_label_value({EncodedLabelValue::kReference, 1, {}}, {"a", "b"}), "b");
}

std::string decode_fault(const EncodedLabelValue& value, const StringTable& table) {
  try {
    decode_label_value(value, table);
  } catch (const std::runtime_error& fault) {
    return fault.what();
  }
  return {};
}

TEST(DecodeLabelValue, EveryBadReferenceIsAnInvalidLabelIdFormat) {
  const EncodedLabelValue reference{EncodedLabelValue::kReference, 5, {}};
  LogCapture log;
  EXPECT_EQ(decode_fault(reference, {}), "invalid label id format");
  EXPECT_EQ(decode_fault(reference, {"0", "1", "2", "3", "4"}), "invalid label id format");
  EXPECT_EQ(decode_fault(reference, {"0", "1", "2", "3", "4", ""}), "invalid label id format");
  EXPECT_EQ(
      log.texts(QVX_LOG_ERROR),
      (Messages{
          "[qvx labels block] decode_label_value: empty label_values array",
          "[qvx labels block] decode_label_value: failed to parse label_id '5': empty label_values array",
          "[qvx labels block] decode_label_value: invalid label id: 5 (max=5)",
          "[qvx labels block] decode_label_value: failed to parse label_id '5': invalid label id",
          "[qvx labels block] decode_label_value: empty string at label_values[5]",
          "[qvx labels block] decode_label_value: failed to parse label_id '5': invalid label value"}));
}

TEST(DecodeLabelValue, UnknownTypeIsNamed) {
  LogCapture log;
  EXPECT_EQ(decode_fault({2, 0, "x"}, {"a"}), "unknown label key type");
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            Messages{"[qvx labels block] decode_label_value: unknown label key type: 'unknown'"});
  EXPECT_STREQ(label_value_type_text(0), "label_value_id");
  EXPECT_STREQ(label_value_type_text(1), "label_value");
}

TEST(DecodeLabelValues, TextsComeInOrder) {
  const std::vector<EncodedLabelValue> values{{EncodedLabelValue::kReference, 1, {}},
                                              {EncodedLabelValue::kInlineText, 0, "in"},
                                              {EncodedLabelValue::kReference, 0, {}}};
  EXPECT_EQ(decode_label_values(values, {"a", "b"}), (std::vector<std::string_view>{"b", "in", "a"}));
}

TEST(DecodeLabelValues, FirstFailureIsNamedByItsIndex) {
  const std::vector<EncodedLabelValue> values{{EncodedLabelValue::kReference, 0, {}},
                                              {EncodedLabelValue::kReference, 0, {}},
                                              {EncodedLabelValue::kReference, 9, {}}};
  LogCapture log;
  try {
    decode_label_values(values, {"a"});
    FAIL();
  } catch (const std::runtime_error& fault) {
    EXPECT_STREQ(fault.what(), "Failed to decode label value at index 2: invalid label id format");
  }
  EXPECT_EQ(log.texts(QVX_LOG_ERROR).back(),
            "[qvx labels block] decode_label_values: failed to decode label 2: invalid label id format");
}

}  // namespace
}  // namespace qvx::metrics
