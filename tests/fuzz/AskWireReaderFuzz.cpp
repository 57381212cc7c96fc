// Fuzz target: envelope samples through AskWireReader. The first byte picks
// the chunk size and whether the numbering jumps halfway; the rest are
// little-endian 16-bit samples. Every frame that comes out must hold what the
// reader promises: the length of its header, a zero XOR, ordered sample
// numbers; SettledThrough must never go back within one numbering.
#include "decode/AskWireReader.h"

#include <cstddef>
#include <cstdint>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    const size_t chunk = 1 + (data[0] & 0x7F) * 37;
    const bool jump = (data[0] & 0x80) != 0;
    ++data;
    --size;
    std::vector<int32_t> samples(size / 2);
    for (size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<int32_t>(data[2 * i] | (data[2 * i + 1] << 8));

    AskWireReader reader;
    uint64_t settled = 0;
    uint64_t number = 1000;
    for (size_t pos = 0; pos < samples.size(); pos += chunk) {
        const size_t n = std::min(chunk, samples.size() - pos);
        if (jump && pos >= samples.size() / 2 && pos < samples.size() / 2 + chunk)
            number += 777;
        reader.Feed(samples.data() + pos, n, number);
        number += n;
        const uint64_t now = reader.SettledThrough();
        if (now < settled)
            __builtin_trap();
        for (const AskWireFrame& f : reader.Take()) {
            if (f.bytes.size() < 3 ||
                f.bytes.size() != static_cast<size_t>(AskWireBitReader::MessageSize(f.bytes[0])) + 2)
                __builtin_trap();
            uint8_t sum = 0;
            for (uint8_t b : f.bytes)
                sum ^= b;
            if (sum != 0 || f.firstSample > f.startBitSample || f.startBitSample >= f.endSample ||
                f.firstSample < settled || f.swing <= 0 || (f.polarity != 1 && f.polarity != -1))
                __builtin_trap();
        }
        settled = now;
    }
    reader.Reset();
    return 0;
}
