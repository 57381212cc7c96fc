#include "common/TimeText.h"

#include <cstdio>

std::string TimeText(int64_t microseconds)
{
    const int64_t totalSeconds = microseconds / 1000000;
    const int micro = static_cast<int>(microseconds % 1000000);
    const int64_t inDay = totalSeconds % 86400;
    const int hours = static_cast<int>(inDay / 3600);
    const int minutes = static_cast<int>((inDay / 60) % 60);
    const int seconds = static_cast<int>(inDay % 60);
    char text[64];
    std::snprintf(text, sizeof text, "%02d:%02d:%02d.%06d", hours, minutes, seconds, micro);
    return text;
}

std::string SpacedHex(const uint8_t* bytes, size_t n)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(n * 3);
    for (size_t i = 0; i < n; ++i) {
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 0x0F];
        out += ' ';
    }
    return out;
}
