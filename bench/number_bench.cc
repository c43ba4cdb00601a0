// Stage "number text": the routines of qvx/support/number.h against std::to_chars and snprintf on the same
// values. The counter "each" is the time per value.
#include <benchmark/benchmark.h>

#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <random>
#include <vector>

#include "qvx/support/number.h"

namespace {

constexpr std::size_t kValues = 1 << 16;  // too many for the branch predictor to learn by heart
constexpr std::uint64_t kSeed = 20240229;
constexpr std::size_t kBufferSize = 256 * 1024;

// ---- the writers ----

struct Own {
  static char* json(char* out, double value) { return qvx::write_json_number(out, value); }
  static char* json(char* out, std::uint64_t value) { return qvx::write_json_number(out, value); }
  static char* decimal(char* out, std::uint64_t value) { return qvx::write_decimal(out, value); }
  static char* fixed(char* out, double value) { return qvx::write_fixed6(out, value); }
};

struct ToChars {
  static char* json(char* out, double value) {
    return std::to_chars(out, out + qvx::kNumberRoom, value, std::chars_format::general, 17).ptr;
  }
  static char* json(char* out, std::uint64_t value) { return json(out, static_cast<double>(value)); }
  static char* decimal(char* out, std::uint64_t value) {
    return std::to_chars(out, out + qvx::kNumberRoom, value).ptr;
  }
  static char* fixed(char* out, double value) {
    return std::to_chars(out, out + qvx::kFixedNumberRoom, value, std::chars_format::fixed, 6).ptr;
  }
};

struct Snprintf {
  static char* json(char* out, double value) {
    return out + std::snprintf(out, qvx::kNumberRoom, "%1.17g", value);
  }
  static char* json(char* out, std::uint64_t value) { return json(out, static_cast<double>(value)); }
  static char* decimal(char* out, std::uint64_t value) {
    return out + std::snprintf(out, qvx::kNumberRoom, "%lu", value);
  }
  static char* fixed(char* out, double value) {
    return out + std::snprintf(out, qvx::kFixedNumberRoom, "%f", value);
  }
};

// ---- the values ----

template <typename T, typename Make>
std::vector<T> values_of(Make make) {
  std::mt19937_64 random(kSeed);
  std::vector<T> values(kValues);
  for (T& value : values)
    value = make(random);
  return values;
}

std::uint64_t below(std::mt19937_64& random, std::uint64_t end) {
  return random() % end;
}

// A number of 1 to `longest` digits, every length equally often.
std::uint64_t mixed_length(std::mt19937_64& random, unsigned longest) {
  std::uint64_t end = 10;
  for (std::uint64_t more = below(random, longest); more != 0; --more)
    end = end > UINT64_MAX / 10 ? UINT64_MAX : end * 10;
  return below(random, end);
}

std::vector<double> small_integers() {
  return values_of<double>([](auto& random) { return static_cast<double>(below(random, 10'000)); });
}

std::vector<double> integers() {
  return values_of<double>([](auto& random) { return static_cast<double>(mixed_length(random, 15)); });
}

// Readings with two decimals, ratios and single-precision values.
std::vector<double> fractions() {
  return values_of<double>([](auto& random) {
    switch (below(random, 3)) {
      case 0:
        return static_cast<double>(below(random, 10'000'000)) / 100;
      case 1:
        return static_cast<double>(1 + below(random, 1000)) / static_cast<double>(1 + below(random, 100'000));
      default:
        return static_cast<double>(static_cast<float>(below(random, 1'000'000)) / 1000.0F);
    }
  });
}

std::vector<double> any_doubles() {
  return values_of<double>([](auto& random) {
    return std::ldexp(static_cast<double>(random()), static_cast<int>(below(random, 1900)) - 1000);
  });
}

std::vector<std::uint64_t> small_counts() {
  return values_of<std::uint64_t>([](auto& random) { return below(random, 10'000); });
}

std::vector<std::uint64_t> mixed_counts() {
  return values_of<std::uint64_t>([](auto& random) { return mixed_length(random, 20); });
}

// ---- the measurement ----

// Writes the values one behind the other, as a record is written.
template <typename T, char* (*kWrite)(char*, T), std::vector<T> (*kMake)()>
void number_text(benchmark::State& state) {
  const std::vector<T> values = kMake();
  std::vector<char> buffer(kBufferSize);
  char* const last = buffer.data() + kBufferSize - qvx::kFixedNumberRoom - 1;
  for (auto _ : state) {
    char* out = buffer.data();
    for (const T value : values) {
      out = kWrite(out, value);
      *out++ = ',';
      if (out > last) out = buffer.data();
    }
    benchmark::DoNotOptimize(out);
    benchmark::ClobberMemory();
  }
  using benchmark::Counter;
  state.counters["each"] =
      Counter(static_cast<double>(kValues), Counter::kIsIterationInvariantRate | Counter::kInvert);
}

}  // namespace

#define QVX_BENCH_NUMBER(type, form, values)                                                               \
  BENCHMARK(number_text<type, Own::form, values>)->Name("number text/" #form "/" #values "/own");          \
  BENCHMARK(number_text<type, ToChars::form, values>)->Name("number text/" #form "/" #values "/to_chars"); \
  BENCHMARK(number_text<type, Snprintf::form, values>)->Name("number text/" #form "/" #values "/snprintf")

QVX_BENCH_NUMBER(double, json, small_integers);
QVX_BENCH_NUMBER(double, json, integers);
QVX_BENCH_NUMBER(double, json, fractions);
QVX_BENCH_NUMBER(double, json, any_doubles);
QVX_BENCH_NUMBER(std::uint64_t, json, small_counts);
QVX_BENCH_NUMBER(std::uint64_t, json, mixed_counts);
QVX_BENCH_NUMBER(std::uint64_t, decimal, mixed_counts);
QVX_BENCH_NUMBER(double, fixed, integers);
QVX_BENCH_NUMBER(double, fixed, fractions);
