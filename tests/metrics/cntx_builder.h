// Metrics blocks for tests, put together piece by piece so that each piece can be wrong.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qvx::test {

inline constexpr std::uint64_t kBatchTime = 1700000000000000;  // 2023-11-14 22:13:20 UTC

template <typename T>
std::string le_bytes(T value) {
  std::string bytes;
  for (std::size_t i = 0; i < sizeof(T); ++i)
    bytes += static_cast<char>(value >> (8 * i) & 0xFF);
  return bytes;
}

inline std::string le16(std::uint16_t value) {
  return le_bytes<std::uint32_t>(value).substr(0, 2);
}
inline std::string le32(std::uint32_t value) {
  return le_bytes(value);
}
inline std::string le64(std::uint64_t value) {
  return le_bytes(value);
}
inline std::string byte(std::size_t value) {
  return std::string(1, static_cast<char>(value));
}

// A length byte and the text.
inline std::string entry(std::string_view text) {
  return byte(text.size()) + std::string(text);
}

using Texts = std::vector<std::string>;

inline std::string entries(const Texts& texts) {
  std::string bytes;
  for (const std::string& text : texts)
    bytes += entry(text);
  return bytes;
}

inline std::string label_names(const Texts& names) {
  return "LBLN" + byte(names.size()) + entries(names) + "lbln";
}

inline std::string string_table(std::string_view opening, std::string_view closing, const Texts& texts) {
  return std::string(opening) + le16(static_cast<std::uint16_t>(texts.size())) + entries(texts) +
         std::string(closing);
}

inline std::string label_values(const Texts& texts) {
  return string_table("LBLV", "lblv", texts);
}
inline std::string metric_names(const Texts& texts) {
  return string_table("CNTI", "cnti", texts);
}
inline std::string constant_labels(const Texts& texts) {
  return string_table("CLBL", "clbl", texts);
}

inline std::string labels_header(std::size_t set, std::size_t count, char encoding) {
  return byte(set) + byte(count) + encoding;
}

// All values are references.
inline std::string labels_l(std::size_t set, const std::vector<std::uint8_t>& ids) {
  return labels_header(set, ids.size(), 'L') + std::string(ids.begin(), ids.end());
}

// All values are inline texts.
inline std::string labels_i(std::size_t set, const Texts& texts) {
  return labels_header(set, texts.size(), 'I') + entries(texts);
}

// Values of both kinds, each made by one of the two functions below.
inline std::string labels_m(std::size_t set, const Texts& values) {
  std::string bytes = labels_header(set, values.size(), 'M');
  for (const std::string& value : values)
    bytes += value;
  return bytes;
}
inline std::string mixed_text(std::string_view text) {
  return "I" + entry(text);
}
inline std::string mixed_id(std::size_t id) {
  return "L" + byte(id);
}

struct TestBatch {
  std::uint64_t timestamp = kBatchTime;
  char kind = 'C';
  std::uint8_t value_type = 1;
  std::vector<std::pair<std::uint16_t, std::uint64_t>> samples = {{0, 5}};
  std::string labels = labels_l(0, {0});
  std::uint16_t length = 28;
};

inline std::string record(const TestBatch& batch) {
  std::string bytes = le16(batch.length) + le64(batch.timestamp) + batch.kind + byte(batch.value_type) +
                      le16(static_cast<std::uint16_t>(batch.samples.size()));
  for (const auto& [id, value] : batch.samples)
    bytes += le16(id) + le64(value);
  return bytes + batch.labels;
}

struct TestBucket {
  double bound;
  std::uint64_t count;
};

inline std::string histogram_record(std::string_view name, const std::vector<TestBucket>& buckets,
                                    std::string_view labels, std::uint64_t timestamp = kBatchTime,
                                    double sum = 1.5, std::uint64_t count = 3) {
  std::string bytes = "HIST" + le64(timestamp) + entry(name) + byte(buckets.size());
  for (const TestBucket& bucket : buckets)
    bytes += le64(std::bit_cast<std::uint64_t>(bucket.bound)) + le64(bucket.count);
  return bytes + le64(std::bit_cast<std::uint64_t>(sum)) + le64(count) + std::string(labels) + "hist";
}

// A whole block: the pieces in the order in which they are searched for, each as its bytes.
struct TestBlock {
  std::string label_name_sets = label_names({"host"});
  std::string label_values = test::label_values({"node7", "node8", "p1"});
  std::string metric_names = test::metric_names({"rx", "tx", "err", "drop"});
  std::string histograms;
  std::string constant_labels;
  std::vector<std::string> records = {record({})};
  std::uint32_t blocksize = 4096;
  std::string data_marker = "CNTD";
  std::string trailer = "cntdcntx";

  std::string bytes() const {
    std::string body = label_name_sets + label_values + metric_names + histograms + constant_labels;
    body += data_marker + le32(blocksize);
    for (const std::string& one : records)
      body += one;
    body += trailer;
    return "CNTX" + le32(static_cast<std::uint32_t>(8 + body.size())) + body;
  }

  // The same with a size that is not its own.
  std::string bytes_of_size(std::uint32_t total_size) const {
    std::string all = bytes();
    all.replace(4, 4, le32(total_size));
    return all;
  }
};

}  // namespace qvx::test
