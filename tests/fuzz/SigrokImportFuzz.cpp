// Fuzz target: the bytes of a sigrok session file as `coilscope-cli replay
// FILE.sr` reads them: the zip archive (libzip), the metadata, the sample
// entries, the choice of the channel, the resampling to the sniffer's streams
// and, for a short capture, the replay of those streams through the decoders.
#include "events/StreamReplay.h"
#include "interchange/SigrokImport.h"
#include "services/SettingParams.h"

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    interchange::SigrokCapture capture;
    std::string error;
    if (!interchange::ReadSigrokSession(data, size, capture, error, 1u << 20)) {
        if (error.empty())
            __builtin_trap();  // a refusal always says why
        return 0;
    }
    for (const interchange::SigrokChannel& c : capture.channels)
        for (size_t i = 0; i < std::min<size_t>(capture.Samples(c), 64); ++i)
            (void)capture.Bit(c, i);
    interchange::ImportedStreams streams;
    if (!interchange::StreamsFromSigrok(capture, std::string(), streams, error)) {
        if (error.empty())
            __builtin_trap();
        return 0;
    }
    // Ten seconds of stream at most: the decoders have fuzz targets of their own.
    if (streams.askSamples > 400000 || streams.fskWords > 100000)
        return 0;
    SettingParams settings;
    settings.m_min_freq = 110000;
    settings.m_max_freq = 210000;
    StreamReplay replay(std::move(streams.ask), std::move(streams.fsk), &settings);
    size_t events = 0;
    replay.Run([&events](std::vector<MsgInfoPtr>& batch) { events += batch.size(); });
    return 0;
}
