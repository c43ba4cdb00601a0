#include "qvx/data/source.h"

namespace qvx {

qvx_source make_source(std::string_view id, std::string_view tag) noexcept {
  qvx_source source;
  id.copy(source.id.data(), source.id.size());
  tag.copy(source.tag.data(), source.tag.size());
  return source;
}

}  // namespace qvx
