// Growing an array in two steps, so that an element that cannot be taken stays its owner's.
#pragma once

#include <algorithm>
#include <cstddef>

namespace qvx {

// Makes room for one more element; the room doubles, so that n elements are moved n times at most. Throws
// what the array's reserve() throws, and then has changed nothing.
template <typename Vector>
void reserve_one_more(Vector& elements) {
  constexpr std::size_t kFirst = 8;
  if (elements.size() == elements.capacity()) elements.reserve(std::max(kFirst, 2 * elements.size()));
}

}  // namespace qvx
