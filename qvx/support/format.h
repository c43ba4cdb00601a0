// printf-style text for messages and dumps. Not for the path that runs once per record.
#pragma once

#include <cstdarg>
#include <string>

namespace qvx {

void append_format(std::string& out, const char* format, ...) __attribute__((format(printf, 2, 3)));
void append_vformat(std::string& out, const char* format, va_list args) __attribute__((format(printf, 2, 0)));
std::string format_text(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace qvx
