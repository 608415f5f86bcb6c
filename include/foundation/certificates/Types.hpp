// Basic value types shared by the whole interface.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

namespace foundation::certificates {

// Every binary input and output: DER data, key material, digests before hex encoding.
// Big numbers are unsigned big-endian magnitudes without leading zero bytes.
using ByteArray = std::vector<unsigned char>;

// Validity dates: whole seconds since 1970-01-01T00:00:00Z, on a one-microsecond tick.
using TimePoint = std::chrono::time_point<std::chrono::system_clock, std::chrono::microseconds>;

// How loaders found their input encoded. Detection is a search for the format's PEM header:
// present anywhere means PEM, absent means DER.
enum class Encoding : std::uint32_t {
    PEM = 0,
    DER = 1,
};

}  // namespace foundation::certificates
