// The number routines against std::to_chars on whole classes of numbers, and std::to_chars against snprintf
// on a sample of them.
//
//   number_proof_tests [STRIDE]    looks at every STRIDE-th number of the large classes; 1, all of them,
//   takes an hour
//
// Prints for each class how many numbers were looked at, how many differ, and the seconds. The first ten that
// differ are shown.
#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <random>
#include <string_view>

#include "qvx/support/number.h"

namespace {

constexpr std::uint64_t kSeed = 20240229;
constexpr std::uint64_t kRandomDoubles = 1'000'000'000;
constexpr std::uint64_t kTies = 10'000'000;
constexpr std::uint64_t kSampled = 1024;  // every so many numbers the reference itself is checked
constexpr int kNeighbours = 3;

class Proof {
 public:
  // Looks at one number in every spelling.
  void number(double value) {
    ++count_;
    if (std::isfinite(value)) general(value);
    fixed(value);
  }

  void integer(std::uint64_t value) {
    ++count_;
    char own[qvx::kNumberRoom];
    char reference[qvx::kNumberRoom];
    same({own, qvx::write_decimal(own, value)},
         {reference, std::to_chars(reference, std::end(reference), value).ptr});
    const auto as_double = static_cast<double>(value);
    same({own, qvx::write_json_number(own, value)}, general_reference(reference, as_double));
    const auto negated = static_cast<std::int64_t>(0 - value);
    same({own, qvx::write_json_number(own, negated)},
         general_reference(reference, static_cast<double>(negated)));
  }

  void end_of_class(const char* name) {
    const auto now = std::chrono::steady_clock::now();
    std::printf("%-40s %12llu numbers %6llu differences %8.1f s\n", name,
                static_cast<unsigned long long>(count_), static_cast<unsigned long long>(differences_),
                std::chrono::duration<double>(now - began_).count());
    std::fflush(stdout);
    failed_ = failed_ || differences_ > 0 || count_ == 0;
    count_ = differences_ = 0;
    began_ = now;
  }

  bool failed() const { return failed_; }

 private:
  using Text = std::string_view;

  void general(double value) {
    char own[qvx::kNumberRoom];
    char reference[qvx::kNumberRoom];
    same({own, qvx::write_json_number(own, value)}, general_reference(reference, value));
  }

  void fixed(double value) {
    char own[qvx::kFixedNumberRoom];
    char reference[qvx::kFixedNumberRoom];
    const Text text{reference,
                    std::to_chars(reference, std::end(reference), value, std::chars_format::fixed, 6).ptr};
    sample("%f", value, text);
    same({own, qvx::write_fixed6(own, value)}, text);
  }

  Text general_reference(char* out, double value) {
    const Text text{out,
                    std::to_chars(out, out + qvx::kNumberRoom, value, std::chars_format::general, 17).ptr};
    sample("%1.17g", value, text);
    return text;
  }

  void sample(const char* format, double value, Text reference) {
    if (count_ % kSampled != 0) return;
    char text[qvx::kFixedNumberRoom];
    const int length = std::snprintf(text, sizeof text, format, value);
    same({text, static_cast<std::size_t>(length)}, reference);
  }

  void same(Text text, Text reference) {
    if (text == reference) [[likely]]
      return;
    if (++differences_ <= 10)
      std::printf("%.*s instead of %.*s\n", static_cast<int>(text.size()), text.data(),
                  static_cast<int>(reference.size()), reference.data());
  }

  std::uint64_t count_ = 0;
  std::uint64_t differences_ = 0;
  bool failed_ = false;
  std::chrono::steady_clock::time_point began_ = std::chrono::steady_clock::now();
};

void with_neighbours(Proof& proof, double value) {
  for (const double sign : {1.0, -1.0}) {
    double below = sign * value;
    double above = below;
    proof.number(below);
    for (int i = 0; i < kNeighbours; ++i) {
      below = std::nextafter(below, -std::numeric_limits<double>::infinity());
      above = std::nextafter(above, std::numeric_limits<double>::infinity());
      proof.number(below);
      proof.number(above);
    }
  }
}

void powers(Proof& proof) {
  for (int exponent = -1074; exponent <= 1023; ++exponent)
    with_neighbours(proof, std::ldexp(1.0, exponent));
  proof.end_of_class("powers of two with 3 neighbours");
  for (int exponent = -323; exponent <= 308; ++exponent) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "1e%d", exponent);
    with_neighbours(proof, std::strtod(text.data(), nullptr));
  }
  proof.end_of_class("powers of ten with 3 neighbours");
}

// Numbers whose exact decimal form ends in a 5 right behind the last digit that is printed: odd / 2^n has n
// decimals, the digits of odd * 5^n.
void ties(Proof& proof, std::uint64_t stride) {
  std::mt19937_64 random(kSeed);
  constexpr int kFirst = 4;  // below it 18 digits need more than 53 bits
  constexpr int kLast = 24;
  for (std::uint64_t i = 0; i < kTies; i += stride) {
    const int n = kFirst + static_cast<int>(random() % (kLast - kFirst + 1));
    const double power = std::pow(5.0, n);
    const auto first = static_cast<std::uint64_t>(1e17 / power);
    const auto end = std::min(static_cast<std::uint64_t>(1e18 / power), std::uint64_t{1} << 53);
    if (first >= end) continue;
    const std::uint64_t odd = (first + random() % (end - first)) | 1;
    proof.number(std::ldexp(static_cast<double>(odd), -n));
  }
  proof.end_of_class("ties of 17 digits");
  for (std::uint64_t i = 0; i < kTies; i += stride) {
    const std::uint64_t odd = (random() >> (11 + random() % 53)) | 1;
    proof.number(std::ldexp(static_cast<double>(odd), -7));
  }
  proof.end_of_class("ties of six decimals");
}

void limits(Proof& proof) {
  constexpr std::uint64_t kAround = 1000;
  const auto around = [&proof](std::uint64_t middle) {
    for (std::uint64_t value = middle - kAround; value != middle + kAround; ++value) {
      proof.integer(value);
      proof.number(static_cast<double>(value));
    }
  };
  for (int bit = 0; bit < 64; ++bit)
    around(std::uint64_t{1} << bit);
  for (std::uint64_t power = 1; power <= UINT64_MAX / 10; power *= 10)
    around(power);
  around(std::uint64_t{10'000'000'000} * 1'000'000'000);
  using Limits = std::numeric_limits<double>;
  for (const double value :
       {0.0, Limits::max(), Limits::min(), Limits::denorm_min(), 1e15, 1e16, 1e17, 1e-4, 1e-5, 0.5, 0.9999995,
        0.00000049999999999999998, 9007199254740991.5, 9223372036854775807.0})
    with_neighbours(proof, value);
  for (const double value :
       {Limits::infinity(), -Limits::infinity(), Limits::quiet_NaN(), -Limits::quiet_NaN()})
    proof.number(value);
  proof.end_of_class("limits");
}

}  // namespace

int main(int argc, char** argv) {
  const std::uint64_t stride = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1;
  if (stride == 0) return EXIT_FAILURE;
  constexpr std::uint64_t kAll32 = std::uint64_t{1} << 32;
  Proof proof;
  powers(proof);
  limits(proof);
  ties(proof, stride);
  for (std::uint64_t value = 0; value < kAll32; value += stride)
    proof.integer(value);
  proof.end_of_class("integers of 32 bits, and negative");
  for (std::uint64_t bits = 0; bits < kAll32; bits += stride)
    proof.number(double{std::bit_cast<float>(static_cast<std::uint32_t>(bits))});
  proof.end_of_class("single-precision numbers");
  std::mt19937_64 random(kSeed);
  for (std::uint64_t i = 0; i < kRandomDoubles; i += stride)
    proof.number(std::bit_cast<double>(random()));
  proof.end_of_class("doubles of random bits");
  return proof.failed() ? EXIT_FAILURE : EXIT_SUCCESS;
}
