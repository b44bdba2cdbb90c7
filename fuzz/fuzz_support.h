// A failed property ends the run as a crash the fuzzer records.
#pragma once

inline void Require(bool condition) {
    if (!condition) __builtin_trap();
}
