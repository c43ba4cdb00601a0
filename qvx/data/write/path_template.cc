#include "qvx/data/write/path_template.h"

#include <boost/date_time/posix_time/posix_time_io.hpp>
#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <array>
#include <cinttypes>
#include <cstdio>
#include <exception>
#include <iterator>
#include <locale>
#include <new>
#include <optional>
#include <sstream>
#include <utility>

#include "qvx/support/format.h"
#include "qvx/support/log.h"

namespace qvx {
namespace {

// The last millisecond of the year 9999, where the calendar ends.
constexpr std::uint64_t kLastMillisecond = 253402300799999;

// What is put in is not searched again, so a value may hold its own placeholder.
void replace_all(std::string& text, std::string_view from, std::string_view to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
    text.replace(at, from.size(), to);
}

// In this order: a value may hold the placeholder of a later key, which is then filled in too.
void expand_plain_keys(std::string& path, const PathFields& fields) {
  const std::string tag = fields.source_tag.empty() ? "" : std::string(fields.source_tag) + "_";
  replace_all(path, "{{node}}", fields.node);
  replace_all(path, "{{source}}", fields.source_id);
  replace_all(path, "{{port}}", format_text("%d", fields.port));
  replace_all(path, "{{timestamp}}", format_text("%" PRIu64, fields.first_timestamp));
  replace_all(path, "{{tag}}", tag);
}

void expand_date_keys(std::string& path) {
  constexpr std::array<std::pair<std::string_view, std::string_view>, 6> kConversions{{
      {"{{year}}", "%Y"},
      {"{{month}}", "%m"},
      {"{{day}}", "%d"},
      {"{{hour}}", "%H"},
      {"{{minute}}", "%M"},
      {"{{second}}", "%S"},
  }};
  for (const auto& [key, conversion] : kConversions)
    replace_all(path, key, conversion);
}

// The number that a hash spreads sources by: a GUID itself, else the sum of the bytes.
std::uint64_t source_number(const std::string& source_id) {
  if (source_id.starts_with("0x")) {
    unsigned long guid = 0;
    if (std::sscanf(source_id.c_str(), "0x%lx", &guid) == 1) return guid;
    QVX_LOG(QVX_LOG_ERROR, "Failed to read %s as guid number", source_id.c_str());
  }
  std::uint64_t sum = 0;
  for (const char byte : source_id)
    sum += static_cast<unsigned char>(byte);
  return sum;
}

// Replaces the first hash placeholder; one that never ends is left alone.
void expand_hash(std::string& path, std::string_view source_id) {
  constexpr std::string_view kEnd = "}}";
  const std::size_t start = path.find("{{hash");
  if (start == std::string::npos) return;
  const std::size_t end = path.find(kEnd, start);
  if (end == std::string::npos) return;
  const std::size_t size = end + kEnd.size() - start;
  int modulus = 0;
  if (std::sscanf(path.c_str() + start, "{{hash%d}}", &modulus) != 1) {
    QVX_LOG(QVX_LOG_ERROR,
            "path_template expects {{hash[num]}}, '[num]' - a positive integer, actually received %.*s",
            static_cast<int>(size), path.c_str() + start);
    return;
  }
  std::uint64_t number = source_number(std::string(source_id));
  // A negative modulus is taken as the unsigned number that it makes, and so leaves small numbers alone.
  if (modulus != 0) number %= static_cast<std::uint64_t>(static_cast<std::int64_t>(modulus));
  path.replace(start, size, format_text("%d", static_cast<int>(number)));
}

// The path as a date format, filled in with the time.
bool format_time(std::string& path, std::uint64_t timestamp, std::string& fault) {
  using namespace boost::posix_time;
  const std::uint64_t time = timestamp / 1000;
  if (time > kLastMillisecond) {
    fault = "time is out of range";
    return false;
  }
  try {
    // Not owned by a locale, which would lose it when memory runs short.
    constexpr std::size_t kKeptHere = 1;
    const time_facet facet(path.c_str(), {}, {}, {}, kKeptHere);
    std::ostringstream out;
    out.imbue(std::locale::classic());
    facet.put(std::ostreambuf_iterator<char>(out), out, ' ',
              ptime(boost::gregorian::date(1970, 1, 1), milliseconds(static_cast<std::int64_t>(time))));
    path = out.str();
    return true;
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& refusal) {
    fault = refusal.what();
    return false;
  }
}

}  // namespace

bool expand_path_template(std::string_view path_template, const PathFields& fields, std::string& path,
                          std::string& fault) {
  path = path_template;
  expand_plain_keys(path, fields);
  expand_date_keys(path);
  expand_hash(path, fields.source_id);
  if (fields.first_timestamp != 0 && !format_time(path, fields.first_timestamp, fault)) return false;
  replace_all(path, "{{id}}", fields.id);
  // A tag in front of an empty id leaves no underscore at the end of a folder's name.
  replace_all(path, "_/", "/");
  return true;
}

}  // namespace qvx
