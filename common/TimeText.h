#pragma once

#include <cstdint>
#include <string>
#include <vector>

// "%02d:%02d:%02d.%06d" of a microsecond count: hours within the day (the count
// wraps every 86400 seconds), minutes, seconds, microseconds.
std::string TimeText(int64_t microseconds);

// Bytes as upper-case hexadecimal pairs, each followed by one blank.
std::string SpacedHex(const uint8_t* bytes, size_t n);
inline std::string SpacedHex(const std::vector<uint8_t>& bytes) { return SpacedHex(bytes.data(), bytes.size()); }
