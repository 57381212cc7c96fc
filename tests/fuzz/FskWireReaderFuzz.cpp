// Fuzz target: period words through FskWireReader. The first byte picks
// whether the capture time goes back halfway (a new capture); the rest are
// little-endian 16-bit period words, timed by their running sum. Every frame
// that comes out must hold what the reader promises: a response pattern of the
// table, or a packet of its header's length with a zero XOR; a start before
// its end and not before what the reader had settled; SettledThrough must
// never go back within one capture.
#include "decode/FskWireReader.h"

#include <cstddef>
#include <cstdint>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    const bool jump = (data[0] & 0x80) != 0;
    const size_t chunk = 1 + (data[0] & 0x7F) * 13;
    ++data;
    --size;
    const size_t n = size / 2;
    std::vector<uint16_t> words(n);
    std::vector<int64_t> ticks(n);
    int64_t at = 60000000;  // a second: the jump back to 0 is a new capture
    for (size_t i = 0; i < n; ++i) {
        words[i] = static_cast<uint16_t>(data[2 * i] | (data[2 * i + 1] << 8));
        if (jump && i == n / 2)
            at = 0;
        at += words[i];
        ticks[i] = at;
    }

    FskWireReader reader;
    int64_t settled = 0;
    for (size_t pos = 0; pos < n; pos += chunk) {
        const size_t m = std::min(chunk, n - pos);
        const bool newCapture = jump && pos <= n / 2 && n / 2 < pos + m;
        reader.Feed(words.data() + pos, ticks.data() + pos, m);
        if (newCapture)
            settled = 0;
        const int64_t now = reader.SettledThrough();
        if (now < settled && !newCapture)
            __builtin_trap();
        for (const FskWireFrame& f : reader.Take()) {
            if (f.pattern) {
                uint8_t byte = 0;
                if (f.bytes.size() != 1 || !FskWireReader::PatternByte(f.patternBits, byte) || byte != f.bytes[0])
                    __builtin_trap();
            } else {
                if (f.bytes.size() < 3 ||
                    f.bytes.size() != static_cast<size_t>(FskWireReader::MessageSize(f.bytes[0])) + 2)
                    __builtin_trap();
                uint8_t sum = 0;
                for (uint8_t b : f.bytes)
                    sum ^= b;
                if (sum != 0)
                    __builtin_trap();
            }
            if (f.startTicks > f.endTicks || (!newCapture && f.startTicks < settled) ||
                (f.cyclesPerBit != 128 && f.cyclesPerBit != 512) || (f.polarity != 1 && f.polarity != -1))
                __builtin_trap();
        }
        settled = now;
    }
    reader.Reset();
    return 0;
}
