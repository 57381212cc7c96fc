// Fuzz target: bytes of the FSK data port through the stream parser, the
// carrier tracker, the packet detector, the level slicer and the frame decoder.
// The first byte picks the chunk size, the second the decoder's polarity.
#include "FskChain.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    const size_t chunk = 8 + 2 * static_cast<size_t>(data[0]);
    const int polarity = static_cast<int>(data[1] % 3) - 1;
    data += 2;
    size -= 2;
    SettingParams::Instance().detectedPolarity.store(polarity);
    CThreadFSK fsk(nullptr, &FskChain::Band());
    FskFrameCollector host(fsk);
    for (size_t off = 0; off < size; off += chunk) {
        const size_t n = std::min(chunk, size - off);
        fsk.ParseChunk(data + off, n / 2);
        while (FskDecodingPass(fsk, host) == 0) {
        }
    }
    while (auto frame = host.decoder.TakeFrame()) {
        if (frame->direction != 1)
            __builtin_trap();
    }
    fsk.TakeDisplayWords();
    return 0;
}
