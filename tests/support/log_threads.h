// What the two modules of the logger's thread test have in common.
#pragma once

#include <cstdint>

#include "qvx/support/log.h"

// Exported by the second module, which has a logger of its own.
extern "C" {
typedef bool (*import_function)(const qvx_logger_state* state);
typedef void (*log_function)(int thread, int number);
}
