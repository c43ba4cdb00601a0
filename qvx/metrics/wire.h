// The layout of a metrics block as it stands in a file: markers, and one table per record from which every
// reader and writer of this room takes its offsets. All integers are little-endian, nothing is aligned.
//
//   CNTX header | LBLN sections | LBLV | CNTI | HIST records | CLBL | CNTD header | records | "cntdcntx"
//
// Sections are found by searching for their markers, so bytes between them are stepped over, and a marker
// inside a text is taken for a section.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "qvx/support/bytes.h"
#include "qvx/support/layout_table.h"

namespace qvx::metrics::wire {

inline constexpr std::string_view kBlockMarker = "CNTX";
inline constexpr std::string_view kLabelNamesMarker = "LBLN";
inline constexpr std::string_view kLabelNamesEnd = "lbln";
inline constexpr std::string_view kLabelValuesMarker = "LBLV";
inline constexpr std::string_view kLabelValuesEnd = "lblv";
inline constexpr std::string_view kMetricNamesMarker = "CNTI";
inline constexpr std::string_view kMetricNamesEnd = "cnti";
inline constexpr std::string_view kConstantLabelsMarker = "CLBL";
inline constexpr std::string_view kConstantLabelsEnd = "clbl";
inline constexpr std::string_view kHistogramMarker = "HIST";
inline constexpr std::string_view kHistogramEnd = "hist";
inline constexpr std::string_view kDataMarker = "CNTD";
inline constexpr std::string_view kTrailer = "cntdcntx";
inline constexpr std::size_t kMarkerSize = 4;

// The start of a block. `total_size` counts from the magic to the end of the trailer.
inline constexpr std::array kBlockHeader{
    LayoutField{"magic", 0, 4},
    LayoutField{"total_size", 4, 4},
};
inline constexpr std::size_t kBlockHeaderSize = 8;
inline constexpr std::size_t kTotalSizeAt = offset_of(kBlockHeader, "total_size");
static_assert(tiles(kBlockHeader, kBlockHeaderSize));

// A label-name section; `count` entries follow, then the closing marker. An entry of every table is a length
// byte and as many bytes of text.
inline constexpr std::array kLabelNamesHeader{
    LayoutField{"marker", 0, 4},
    LayoutField{"count", 4, 1},
};
inline constexpr std::size_t kLabelNamesHeaderSize = 5;
inline constexpr std::size_t kLabelNamesCountAt = offset_of(kLabelNamesHeader, "count");
static_assert(tiles(kLabelNamesHeader, kLabelNamesHeaderSize));

// The string tables LBLV, CNTI and CLBL; `count` entries follow, then the closing marker.
inline constexpr std::array kStringTableHeader{
    LayoutField{"marker", 0, 4},
    LayoutField{"count", 4, 2},
};
inline constexpr std::size_t kStringTableHeaderSize = 6;
inline constexpr std::size_t kStringTableCountAt = offset_of(kStringTableHeader, "count");
static_assert(tiles(kStringTableHeader, kStringTableHeaderSize));

// The CNTD section; batch records follow up to the trailer. What lies between marker and trailer is the data
// area, so the first record stands at data-area offset 4.
inline constexpr std::array kDataHeader{
    LayoutField{"marker", 0, 4},
    LayoutField{"blocksize", 4, 4},
};
inline constexpr std::size_t kDataHeaderSize = 8;
inline constexpr std::size_t kDataAreaAt = offset_of(kDataHeader, "blocksize");
inline constexpr std::size_t kBlocksizeSize = 4;
static_assert(tiles(kDataHeader, kDataHeaderSize) && kDataHeaderSize - kDataAreaAt == kBlocksizeSize);

// A batch record; its samples and its labels block follow.
inline constexpr std::array kRecordHeader{
    LayoutField{"length", 0, 2},      LayoutField{"timestamp", 2, 8},    LayoutField{"kind", 10, 1},
    LayoutField{"value_type", 11, 1}, LayoutField{"num_samples", 12, 2},
};
inline constexpr std::size_t kRecordHeaderSize = 14;
inline constexpr std::size_t kRecordLengthAt = offset_of(kRecordHeader, "length");
inline constexpr std::size_t kRecordTimestampAt = offset_of(kRecordHeader, "timestamp");
inline constexpr std::size_t kRecordKindAt = offset_of(kRecordHeader, "kind");
inline constexpr std::size_t kRecordValueTypeAt = offset_of(kRecordHeader, "value_type");
inline constexpr std::size_t kRecordSamplesAt = offset_of(kRecordHeader, "num_samples");
static_assert(tiles(kRecordHeader, kRecordHeaderSize));

inline constexpr std::array kSample{
    LayoutField{"sample_id", 0, 2},
    LayoutField{"sample_value", 2, 8},
};
inline constexpr std::size_t kSampleSize = 10;
inline constexpr std::size_t kSampleIdAt = offset_of(kSample, "sample_id");
inline constexpr std::size_t kSampleValueAt = offset_of(kSample, "sample_value");
static_assert(tiles(kSample, kSampleSize));

// A labels block; the values follow in the stated encoding.
inline constexpr std::array kLabelsHeader{
    LayoutField{"label_set_id", 0, 1},
    LayoutField{"encoded_label_value_count", 1, 1},
    LayoutField{"encoding_type", 2, 1},
};
inline constexpr std::size_t kLabelsHeaderSize = 3;
inline constexpr std::size_t kLabelSetIdAt = offset_of(kLabelsHeader, "label_set_id");
inline constexpr std::size_t kLabelCountAt = offset_of(kLabelsHeader, "encoded_label_value_count");
inline constexpr std::size_t kLabelEncodingAt = offset_of(kLabelsHeader, "encoding_type");
static_assert(tiles(kLabelsHeader, kLabelsHeaderSize));
inline constexpr char kReferences = 'L';
inline constexpr char kInlineTexts = 'I';
inline constexpr char kMixed = 'M';

// A histogram record: this, the name, the bucket count and the buckets, the totals, a labels block, "hist".
inline constexpr std::array kHistogramHeader{
    LayoutField{"marker", 0, 4},
    LayoutField{"timestamp", 4, 8},
    LayoutField{"name_length", 12, 1},
};
inline constexpr std::size_t kHistogramHeaderSize = 13;
inline constexpr std::size_t kHistogramTimestampAt = offset_of(kHistogramHeader, "timestamp");
inline constexpr std::size_t kHistogramNameLengthAt = offset_of(kHistogramHeader, "name_length");
static_assert(tiles(kHistogramHeader, kHistogramHeaderSize));

inline constexpr std::array kBucket{
    LayoutField{"bound", 0, 8},
    LayoutField{"count", 8, 8},
};
inline constexpr std::size_t kBucketSize = 16;
inline constexpr std::size_t kBucketBoundAt = offset_of(kBucket, "bound");
inline constexpr std::size_t kBucketCountAt = offset_of(kBucket, "count");
static_assert(tiles(kBucket, kBucketSize));

inline constexpr std::array kHistogramTotals{
    LayoutField{"sum", 0, 8},
    LayoutField{"count", 8, 8},
};
inline constexpr std::size_t kHistogramTotalsSize = 16;
inline constexpr std::size_t kHistogramSumAt = offset_of(kHistogramTotals, "sum");
inline constexpr std::size_t kHistogramCountAt = offset_of(kHistogramTotals, "count");
static_assert(tiles(kHistogramTotals, kHistogramTotalsSize));

// The first place of a marker in [from, end), or `end`.
inline const std::byte* find_marker(const std::byte* from, const std::byte* end, std::string_view marker) {
  const std::string_view text = as_text(Bytes(from, end));
  if (text.starts_with(marker)) return from;
  const std::size_t at = text.find(marker);
  return at == std::string_view::npos ? end : from + at;
}

}  // namespace qvx::metrics::wire
