// The frame header of the device's data streams: payload length in bytes and
// a time stamp, both unsigned 32 bits sent as two 16-bit words, low word first,
// then the payload words. The header state is kept across chunks.
#pragma once

#include <cstdint>

struct StreamFrameParser {
    enum Word { kHeader, kStampComplete, kPayload };

    uint32_t remaining = 0;  // payload bytes still to come, tested as signed
    uint32_t stamp = 0;
    int state = 0;           // 0 to 3: header words; 4: payload

    // Takes one word. kPayload means the word is a payload word: the caller
    // uses it, then calls PayloadTaken().
    Word Take(uint32_t w)
    {
        switch (state) {
        case 0:
            remaining = w;
            state = 1;
            return kHeader;
        case 1:
            remaining += w << 16;
            state = 2;
            return kHeader;
        case 2:
            stamp = w;
            state = 3;
            return kHeader;
        case 3:
            stamp += w << 16;
            state = 4;
            return kStampComplete;
        default:
            return kPayload;
        }
    }

    // A corrupt length is taken at face value: a new frame begins only once
    // that many bytes have passed.
    void PayloadTaken()
    {
        remaining -= 2;
        if (static_cast<int32_t>(remaining) < 1)
            state = 0;
    }

    void Reset() { *this = StreamFrameParser(); }
};

// The little-endian 16-bit word k of a byte buffer.
inline uint32_t WordAt(const uint8_t* bytes, size_t k)
{
    return static_cast<uint32_t>(bytes[2 * k]) | (static_cast<uint32_t>(bytes[2 * k + 1]) << 8);
}
