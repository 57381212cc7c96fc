#pragma once

#include <cstdint>
#include <string>

// "%02d:%02d:%02d.%06d" of a microsecond count: hours within the day (the count
// wraps every 86400 seconds), minutes, seconds, microseconds.
std::string TimeText(int64_t microseconds);

// Bytes as upper-case hexadecimal pairs, each followed by one blank.
std::string SpacedHex(const uint8_t* bytes, size_t n);
