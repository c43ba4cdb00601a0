#!/usr/bin/env python3
"""Makes qvx/support/number_tables.h, the powers of ten behind the text of fractions.

    make_number_tables.py            writes the header
    make_number_tables.py --check    fails when the committed header is not what this script makes, or when
                                     one of the logarithm formulas of number.cc is wrong somewhere in its range
"""

import pathlib
import sys

TARGET = pathlib.Path(__file__).resolve().parent.parent / "qvx" / "support" / "number_tables.h"

# A normal double has a decimal exponent x of -308 to 308. It is multiplied by 10^(16 - x) to bring 17 digits
# before the point, and compared with 10^(x + 1).
FIRST = -307
LAST = 324

HEAD = """\
// Powers of ten to 128 bits. Made by scripts/make_number_tables.py; do not edit.
#pragma once

#include <cstdint>

namespace qvx::detail {{

// 10^q as (high * 2^64 + low) * 2^(floor(log2(10^q)) - 127), rounded towards zero. The highest bit is set.
struct PowerOfTen {{
  std::uint64_t high;
  std::uint64_t low;
}};

inline constexpr int kFirstPowerOfTen = {first};
inline constexpr int kLastPowerOfTen = {last};

// clang-format off
inline constexpr PowerOfTen kPowersOfTen[] = {{
"""

TAIL = """\
};
// clang-format on

}  // namespace qvx::detail
"""


def floor_log2_of_power(q):
    """floor(log2(10^q)), exactly."""
    if q >= 0:
        return (10**q).bit_length() - 1
    return -(10**-q).bit_length()  # 10^-q is no power of two


def power_of_ten(q):
    """The 128 leading bits of 10^q, rounded towards zero."""
    shift = 127 - floor_log2_of_power(q)
    if q >= 0:
        return 10**q << shift if shift >= 0 else 10**q >> -shift
    return (1 << shift) // 10**-q


def floor_log10_of_power(e):
    """floor(log10(2^e)), exactly."""
    if e >= 0:
        return len(str(1 << e)) - 1
    return -len(str((1 << -e) - 1))


def header():
    entries = []
    for q in range(FIRST, LAST + 1):
        value = power_of_ten(q)
        assert value >> 127 == 1
        entries.append("{0x%016x, 0x%016x}," % (value >> 64, value & (2**64 - 1)))
    lines = ["  " + " ".join(entries[i : i + 2]) for i in range(0, len(entries), 2)]
    return HEAD.format(first=FIRST, last=LAST) + "\n".join(lines) + "\n" + TAIL


def faults():
    found = []
    if not TARGET.exists() or TARGET.read_text() != header():
        found.append(f"{TARGET.name} is not what this script makes")
    for q in range(FIRST, LAST + 1):
        if q * 1741647 >> 19 != floor_log2_of_power(q):
            found.append(f"floor_log2_of_power_of_ten({q})")
    for e in range(-1022, 1024):
        if e * 1262611 >> 22 != floor_log10_of_power(e):
            found.append(f"floor_log10_of_power_of_two({e})")
    return found


def main():
    if sys.argv[1:] == ["--check"]:
        found = faults()
        for fault in found:
            print(fault, file=sys.stderr)
        return 1 if found else 0
    if sys.argv[1:]:
        print(__doc__, file=sys.stderr)
        return 2
    TARGET.write_text(header())
    return 0


if __name__ == "__main__":
    sys.exit(main())
