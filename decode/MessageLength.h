// The number of message bytes that follow a Qi header byte, by the ranges of
// header values the Qi packet structure defines: 1 byte below 0x20, then one
// more for every 16 headers up to 0x7F, every 8 up to 0xDF and every 4 above.
// Both second readers take a packet's length from its header by this rule.
#pragma once

#include <cstdint>

inline int QiMessageLength(uint8_t header)
{
    if (header < 0x20)
        return 1;
    if (header < 0x80)
        return 2 + (header - 0x20) / 16;
    if (header < 0xE0)
        return 8 + (header - 0x80) / 8;
    return 20 + (header - 0xE0) / 4;
}
