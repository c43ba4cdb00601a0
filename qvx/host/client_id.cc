#include "qvx/host/client_id.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "qvx/support/log.h"

char* qvx_host_name(char* buffer, std::size_t size) noexcept {
  if (buffer == nullptr || size == 0) return nullptr;
  std::memset(buffer, 0, size);
  // Read directly: "HOST_NAME" without the prefix is too common a name to be meant for us.
  if (const char* const set = std::getenv("QVX_HOST_NAME"); set != nullptr) {
    std::memcpy(buffer, set, std::min(std::strlen(set), size - 1));
    return buffer;
  }
  if (gethostname(buffer, size - 1) != 0) return nullptr;
  char* const domain = std::find(buffer, buffer + size, '.');
  std::fill(domain, buffer + size, '\0');
  return buffer;
}

qvx_client_id_t* qvx_client_id_create() noexcept {
  qvx::ClientIdPtr id(new (std::nothrow) qvx_client_id_t);
  if (id == nullptr || qvx_host_name(id->host_name.data(), id->host_name.size()) == nullptr) return nullptr;
  return id.release();
}

void qvx_client_id_destroy(qvx_client_id_t* id) noexcept {
  delete id;
}

void qvx_client_id_print_layout() noexcept {
  try {
    // The heading of this table is narrower than that of the others.
    const std::string table = qvx::layout_text(qvx::kClientIdLayout);
    std::puts("Client identifier qvx_client_id_t\n");  // puts adds a line end, so an empty line follows
    std::puts("Field                 Offset    Size");
    std::fputs(table.c_str() + table.find('\n') + 1, stdout);
  } catch (const std::bad_alloc&) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to print client identifier layout: %s", std::strerror(ENOMEM));
  }
}
