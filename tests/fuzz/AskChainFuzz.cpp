// Fuzz target: bytes of the ASK data port through the stream parser, the burst
// cutter and the frame decoder. The first byte picks the chunk size, the rest
// is the stream.
#include "decode/AskDecoding.h"
#include "decode/Thread2K.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    const size_t chunk = 2 + 2 * static_cast<size_t>(data[0]);
    ++data;
    --size;

    CThread2K ask;
    AskFrameDecoder decoder;
    for (size_t off = 0; off < size; off += chunk) {
        const size_t n = std::min(chunk, size - off);
        ask.ParseWords(data + off, n / 2);
        ask.Stream().Process();
        while (AskDecodingPass(ask.Stream(), decoder) == 0) {
        }
    }
    while (auto frame = decoder.Filter().TakeFrame()) {
        if (frame->size > 0 && frame->packet.PacketData.empty())
            __builtin_trap();
    }
    ask.TakeDisplaySamples();
    return 0;
}
