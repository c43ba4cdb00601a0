// Whole data pages as Influx lines: what a consumer sends to a time-series database.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "qvx/data/schema/influx_lines.h"
#include "qvx/data/schema/type_system.h"
#include "qvx/host/adapters.h"
#include "qvx/support/bytes.h"
#include "qvx/support/output_sink.h"

namespace qvx::data {

class Serializer {
 public:
  // The lines of a page with its header, without line ends. The list of adapters ends at the first empty
  // name. Throws std::bad_alloc.
  virtual std::vector<std::string> serialize(Bytes page, std::span<const qvx_adapter_info> adapters,
                                             const qvx_type_system& types) = 0;

 protected:
  ~Serializer() = default;
};

// Writes counters as lines of the measurements "hca_counters", "hca_port_counters", "cpu_counters" and
// "node_counters", and events as lines of measurements named by their types. The time of a line is in
// nanoseconds: that of its block, and for events the record's number in its block on top, so that no point
// replaces another. Blocks stand in the order of the page; what is no block of these kinds is passed over
// byte by byte up to the next "QVX". Lines that a server would refuse are not written.
class InfluxSerializer final : public Serializer {
 public:
  InfluxSerializer();

  std::vector<std::string> serialize(Bytes page, std::span<const qvx_adapter_info> adapters,
                                     const qvx_type_system& types) override;

  // The same lines with line ends, without a copy of each.
  void write(Bytes page, std::span<const qvx_adapter_info> adapters, const qvx_type_system& types,
             OutputSink& sink) const;

  // The measurements of counters and the tags that each may have.
  const InfluxMeasurements& measurements() const { return measurements_; }

 private:
  InfluxMeasurements measurements_;
};

}  // namespace qvx::data
