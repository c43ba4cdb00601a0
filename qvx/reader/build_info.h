// What the program was built from.
#pragma once

#include <string>

namespace qvx {

// The build time and the versions of the components, a line each. The time is that of the source, so that the
// same source gives the same text.
std::string build_info_text();

}  // namespace qvx
