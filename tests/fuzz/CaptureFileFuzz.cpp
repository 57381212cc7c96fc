// Fuzz target: the bytes of two raw capture files replayed through the chains,
// as coilscope-cli replay reads them: the capture header, the search for the
// first whole frame, the frame parsers, the decoders and the data manager.
// The first two bytes tell where the ASK file ends and the FSK file begins.
#include "decode/CaptureFile.h"
#include "events/StreamReplay.h"
#include "services/SettingParams.h"

#include <cstddef>
#include <cstdint>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    const size_t split = std::min<size_t>(size - 2, static_cast<size_t>(data[0]) | static_cast<size_t>(data[1]) << 8);
    data += 2;
    size -= 2;
    std::vector<uint8_t> ask(data, data + split), fsk(data + split, data + size);
    const size_t first = FirstChainedFrame(ask.data(), ask.size());
    if (first > ask.size())
        __builtin_trap();
    SettingParams settings;
    settings.m_min_freq = 110000;
    settings.m_max_freq = 210000;
    StreamReplay replay(std::move(ask), std::move(fsk), &settings);
    size_t events = 0;
    replay.Run([&events](std::vector<MsgInfoPtr>& batch) { events += batch.size(); });
    return 0;
}
