#include "qvx/data/source.h"

#include <cerrno>
#include <cstring>

#include "qvx/host/client_id.h"
#include "qvx/support/env.h"
#include "qvx/support/log.h"
#include "qvx/support/text.h"

namespace qvx {

qvx_source make_source(std::string_view id, std::string_view tag) noexcept {
  qvx_source source;
  id.copy(source.id.data(), source.id.size());
  tag.copy(source.tag.data(), source.tag.size());
  return source;
}

bool source_id_resolve(std::array<char, kSourceIdSize>& to, const char* given) noexcept {
  to = {};
  if (given == nullptr || *given == '\0') given = qvx_getenv("QVX_SOURCE_ID");
  char host_name[kHostNameSize];
  if (given == nullptr || *given == '\0') {
    given = qvx_host_name(host_name, sizeof host_name);
    if (given == nullptr) {
      QVX_LOG(QVX_LOG_ERROR, "[source] Failed to get host name: %s", std::strerror(errno));
      return false;
    }
  }
  std::string_view(given).copy(to.data(), kSourceIdSize - 1);
  return true;
}

bool source_key_text(const qvx_source& source, char* to, std::size_t capacity) noexcept {
  const std::string_view id = field_text(source.id);
  const std::string_view tag = field_text(source.tag);
  if (capacity < id.size() + tag.size() + 2) {
    QVX_LOG(QVX_LOG_DEBUG, "[source] buffer too small for source %.*s:%.*s (got %zu)",
            static_cast<int>(id.size()), id.data(), static_cast<int>(tag.size()), tag.data(), capacity);
    return false;
  }
  to += id.copy(to, id.size());
  *to++ = ':';
  to += tag.copy(to, tag.size());
  *to = '\0';
  return true;
}

}  // namespace qvx
