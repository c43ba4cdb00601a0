// The bytes of a data file, unpacked when they are a gzip stream: what comes out does not depend on how much
// is asked for at a time. The first byte chooses that.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "qvx/scan/data_input.h"

namespace {

using namespace qvx;

// A small input can unpack to a thousand times its size.
constexpr std::size_t kMostBytes = 1 << 20;

struct Result {
  std::vector<std::byte> bytes;
  std::string fault;
  bool at_end = false;

  bool operator==(const Result&) const = default;
};

Result read_all(Bytes file, std::size_t at_a_time) {
  Result result;
  DataInput input;
  input.open(file);
  std::vector<std::byte> part(at_a_time);
  while (result.bytes.size() < kMostBytes) {
    const std::size_t count = input.read(part);
    if (count > part.size()) __builtin_trap();
    result.bytes.insert(result.bytes.end(), part.begin(), part.begin() + static_cast<std::ptrdiff_t>(count));
    if (input.position() != result.bytes.size()) __builtin_trap();
    if (count < part.size()) break;
  }
  result.fault = input.fault();
  result.at_end = input.at_end();
  if (result.at_end && !result.fault.empty()) __builtin_trap();
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::vector<std::uint8_t> file(data + 1, data + size);
  const Bytes bytes = std::as_bytes(std::span(file));
  const Result whole = read_all(bytes, kMostBytes);
  const Result parts = read_all(bytes, std::size_t{1} + data[0]);
  if (whole.bytes.size() < kMostBytes && !(whole == parts)) __builtin_trap();
  return 0;
}
