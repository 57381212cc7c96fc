// The good receiver frames that a replay through the data manager shows, with
// the list decoder and the second reader merged: what the user sees of an ASK
// stream. The benchmarks and the merge tests score them against what was sent.
#pragma once

#include "AskConditions.h"
#include "events/StreamReplay.h"
#include "services/SettingParams.h"
#include "sim/AskSynth.h"

#include <string>
#include <vector>

// The bytes of an event's packet text ("03 FF FC ").
inline std::vector<uint8_t> BytesOfPacketText(const std::string& hex)
{
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 3)
        bytes.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return bytes;
}

// Replays the samples with both readers; the receiver's good frames, each at
// its start in samples. The merge's tally is added to `counts` when given.
inline std::vector<AskFoundFrame> MergedGoodFrames(const std::vector<uint16_t>& samples,
                                                   CDataManager::MergeCounts* counts = nullptr)
{
    SettingParams settings;
    settings.m_ask_second_reader = 1;
    StreamReplay replay(qisim::AskStreamFrames(samples), {}, &settings);
    std::vector<AskFoundFrame> out;
    replay.Run([&](std::vector<MsgInfoPtr>& events) {
        for (const auto& e : events) {
            if (e->direction != 2 || e->packet.Status != "NoError" || e->packet.PacketData.empty())
                continue;
            out.push_back({e->timing.startTime / 25, BytesOfPacketText(e->packet.PacketData)});
        }
    });
    if (counts) {
        const auto c = replay.Manager().Merges();
        counts->recovered += c.recovered;
        counts->corrected += c.corrected;
        counts->agreed += c.agreed;
        counts->disputed += c.disputed;
        counts->refused += c.refused;
        counts->unconfirmed += c.unconfirmed;
    }
    return out;
}
