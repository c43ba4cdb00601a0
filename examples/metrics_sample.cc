#include "examples/metrics_sample.h"

#include <array>
#include <bit>
#include <string>

#include "examples/metrics_block.h"
#include "examples/recording.h"

namespace qvx::examples {
namespace {

using metrics::MetricKind;
using metrics::MetricSample;
using metrics::MetricValueType;

const Names kConstantLabels = {"cluster", "alpha", "rack", "r17"};

// Samples are 64 bits wide; what they mean is the batch's value type.
std::uint64_t bits_of(double value) {
  return std::bit_cast<std::uint64_t>(value);
}
std::uint64_t bits_of(std::int64_t value) {
  return std::bit_cast<std::uint64_t>(value);
}

// One batch for each interface, all labels references into the table.
ByteArray network_block(std::string_view node, std::uint64_t time, std::uint64_t tick) {
  MetricsBlock block({{{"host", "interface"}},
                      {node, "eth0", "ib0"},
                      {"net_received_bytes", "net_sent_bytes", "net_dropped_frames"},
                      kConstantLabels});
  std::uint64_t scale = 1;
  for (const std::string_view interface : {"eth0", "ib0"}) {
    const std::array<MetricSample, 3> samples = {
        {{0, scale * (740000000 + 1250000 * tick)}, {1, scale * (310000000 + 480000 * tick)}, {2, tick / 3}}};
    block.add_batch(time, MetricKind::counter, MetricValueType::uint64, samples,
                    block.labels(0, {node, interface}, LabelEncoding::references));
    scale *= 12;
  }
  return block.bytes();
}

// A single batch. A job comes and goes, so its name is written where it is used.
ByteArray job_block(std::string_view node, std::uint64_t time, std::uint64_t tick) {
  MetricsBlock block({{{"host", "job"}}, {}, {"job_cpu_seconds", "job_load"}, kConstantLabels});
  const auto ticks = static_cast<double>(tick);
  const std::array<MetricSample, 2> samples = {{{0, bits_of(18.75 * ticks)}, {1, bits_of(1.5 + ticks / 4)}}};
  const std::string_view job = tick < 4 ? "weather \"nightly\"" : "train resnet";
  block.add_batch(time, MetricKind::gauge, MetricValueType::floating, samples,
                  block.labels(0, {node, job}, LabelEncoding::inline_texts));
  return block.bytes();
}

// Batches of every value type, labels of two sets, and a histogram.
ByteArray gpu_block(std::string_view node, std::uint64_t time, std::uint64_t tick) {
  enum : std::uint16_t { temperature, power, throttle_reasons, memory_growth, ecc_errors, energy };
  MetricsBlock block({{{"host"}, {"host", "gpu", "model"}},
                      {node, "gpu-accelerator"},
                      {"gpu_temperature_celsius", "gpu_power_watts", "gpu_throttle_reasons",
                       "gpu_memory_growth_bytes", "gpu_ecc_errors", "node_energy_joules"},
                      kConstantLabels});
  const ByteArray host = block.labels(0, {node}, LabelEncoding::references);

  metrics::Histogram latency;
  latency.name = "kernel_launch_seconds";
  latency.timestamp = time;
  latency.buckets = {{0.0001, 90 * tick}, {0.001, 12 * tick}, {0.01, tick}};
  latency.sum = 0.015625 * static_cast<double>(tick);
  latency.count = 103 * tick;
  block.add_histogram(latency, host);

  // The number of the card is not in the table of label values, the rest is.
  const ByteArray gpu = block.labels(1, {node, "0", "gpu-accelerator"}, LabelEncoding::mixed);
  const std::array<MetricSample, 2> readings = {{{temperature, bits_of(61.5 + static_cast<double>(tick))},
                                                 {power, bits_of(287.25 - static_cast<double>(tick) / 2)}}};
  block.add_batch(time, MetricKind::gauge, MetricValueType::floating, readings, gpu);
  const std::array<MetricSample, 1> reasons = {{{throttle_reasons, std::uint64_t{0x40} << tick}}};
  block.add_batch(time, MetricKind::gauge, MetricValueType::bit64, reasons, gpu);
  const std::array<MetricSample, 1> growth = {
      {{memory_growth, bits_of((static_cast<std::int64_t>(tick) - 4) * 1048576)}}};
  block.add_batch(time, MetricKind::gauge, MetricValueType::int64, growth, gpu);
  const std::array<MetricSample, 1> errors = {{{ecc_errors, tick / 5}}};
  block.add_batch(time, MetricKind::counter, MetricValueType::uint64, errors, gpu);
  const std::array<MetricSample, 1> joules = {{{energy, 52000000 + 4600 * tick}}};
  block.add_batch(time, MetricKind::counter, MetricValueType::uint64, joules, host);
  return block.bytes();
}

}  // namespace

void write_metrics_sample(const std::filesystem::path& path, std::string_view node, std::uint64_t start) {
  constexpr std::uint32_t kBlockSize = 1024;
  constexpr std::uint64_t kInterval = 10000000;
  constexpr std::uint64_t kTicks = 6;
  Schemas none;  // metrics blocks carry their own names
  DataFile file(path, none, node, "metrics", kBlockSize, start);
  for (std::uint64_t tick = 0; tick < kTicks; ++tick) {
    const std::uint64_t time = start + tick * kInterval;
    file.append_unit(network_block(node, time, tick), time);
    file.append_unit(job_block(node, time, tick), time);
    file.append_unit(gpu_block(node, time, tick), time);
  }
}

}  // namespace qvx::examples
