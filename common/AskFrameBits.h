// The bits a receiver sends for the bytes of an ASK packet, in the order they
// go out: for each byte a start bit 0, eight data bits least significant first,
// an odd parity bit (over data and parity) and a stop bit 1. The synthesizer
// sends them; the merge of the two ASK readers compares a reading with them.
#pragma once

#include <cstdint>
#include <vector>

inline void AppendAskByteBits(std::vector<uint8_t>& bits, const std::vector<uint8_t>& bytes)
{
    bits.reserve(bits.size() + 11 * bytes.size());
    for (uint8_t byte : bytes) {
        bits.push_back(0);
        int ones = 0;
        for (int i = 0; i < 8; ++i) {
            const uint8_t bit = (byte >> i) & 1;
            ones += bit;
            bits.push_back(bit);
        }
        bits.push_back(ones % 2 == 0 ? 1 : 0);
        bits.push_back(1);
    }
}
