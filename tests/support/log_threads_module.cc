// The second module of the logger's thread test: a copy of the logger that uses the first one's state.
#include "tests/support/log_threads.h"

extern "C" {

__attribute__((visibility("default"))) bool module_import(const qvx_logger_state* state) {
  return qvx_logger_import_state(state);
}

__attribute__((visibility("default"))) void module_log(int thread, int number) {
  QVX_LOG(QVX_LOG_ERROR, "module %d %d", thread, number);
  QVX_LOG(QVX_LOG_DEBUG, "not enabled");
}
}
