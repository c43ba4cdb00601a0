// Between the logger and its recorders; for log.cc and log_recorder.cc only.
#pragma once

#include <cstdint>

namespace qvx::detail {

// Of the recorders of this thread.
bool has_recorder() noexcept;
bool is_recorded(std::uint32_t level) noexcept;

// Offers a message to the recorders of this thread and lets it go on to the logger unless one keeps it.
void record_message(std::uint32_t level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// To the registered callback, else the built-in writer, if the level of the process lets it.
void log_past_recorders(std::uint32_t level, const char* text);

// Keep the threshold at the highest level that somebody takes. Levels are 0 to 7.
void enter_recorder_level(std::uint32_t level);
void leave_recorder_level(std::uint32_t level);

}  // namespace qvx::detail
