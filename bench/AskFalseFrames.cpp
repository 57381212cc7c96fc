// Diagnostic: the false good frames of the merged ASK output under one
// condition of the ask_wire_rates table, each with the packet that was sent
// there and what each reader read of it alone. The samples around each one
// can be written out for a closer look.
//
// Usage: ask_false_frames CONDITION [packets, default 100000] [dump folder]
// (CONDITION is the row number of the table, from 0; the streams are the
// very ones ask_wire_rates plays for that row.)
#include "AskConditions.h"
#include "common/TimeText.h"
#include "MergedReplay.h"
#include "decode/AskWireReader.h"
#include "events/StreamReplay.h"
#include "services/SettingParams.h"
#include "sim/AskSynth.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

struct Seen {
    uint64_t start = 0;
    std::vector<uint8_t> bytes;
    std::string status, reading, other;
};

std::vector<Seen> Replay(const std::vector<uint16_t>& samples, bool second)
{
    SettingParams settings;
    settings.m_ask_second_reader = second ? 1 : 0;
    StreamReplay replay(qisim::AskStreamFrames(samples), {}, &settings);
    std::vector<Seen> out;
    replay.Run([&](std::vector<MsgInfoPtr>& events) {
        for (const auto& e : events)
            if (e->direction == 2 && !e->packet.PacketData.empty())
                out.push_back({e->timing.startTime / 25, BytesOfPacketText(e->packet.PacketData), e->packet.Status,
                               e->packet.reading, e->packet.otherReading});
    });
    return out;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: ask_false_frames CONDITION [packets] [dump folder]\n");
        return 2;
    }
    const size_t ci = static_cast<size_t>(std::atol(argv[1]));
    const long perCondition = argc > 2 ? std::atol(argv[2]) : 100000;
    const std::string dump = argc > 3 ? argv[3] : "";
    const auto conditions = AskConditions();
    if (ci >= conditions.size())
        return 2;
    const AskCondition c = conditions[ci];
    const int chunk = 500;
    long falseFrames = 0;
    // ASK_CHUNK=K plays that stream of the row only.
    const char* only = std::getenv("ASK_CHUNK");
    for (long k = 0; k * chunk < perCondition; ++k) {
        if (only && std::atol(only) != k)
            continue;
        const int n = static_cast<int>(std::min<long>(chunk, perCondition - k * chunk));
        const AskConditionStream s = MakeAskConditionStream(c, n, static_cast<uint32_t>(1000003u * ci + 7919u * k + 17u));
        const std::vector<Seen> merged = Replay(s.samples, true);
        std::vector<AskFoundFrame> good;
        for (const Seen& x : merged)
            if (x.status == "NoError")
                good.push_back({x.start, x.bytes});
        // The scoring's own matching, to name the frames left over.
        std::vector<bool> used(good.size(), false);
        for (const AskConditionPacket& p : s.sent)
            for (size_t i = 0; i < good.size() && !p.bytes.empty(); ++i)
                if (!used[i] && good[i].bytes == p.bytes && good[i].start + 100 >= p.start && good[i].start <= p.end) {
                    used[i] = true;
                    break;
                }
        for (size_t i = 0; i < good.size(); ++i) {
            if (used[i])
                continue;
            ++falseFrames;
            const AskConditionPacket* near = nullptr;
            for (const AskConditionPacket& p : s.sent)
                if (p.start <= good[i].start + 400 && good[i].start <= p.end)
                    near = &p;
            std::printf("chunk %ld: false frame at sample %llu: %s\n", k, (unsigned long long)good[i].start,
                        SpacedHex(good[i].bytes).c_str());
            if (!near) {
                std::printf("  no packet was sent there\n");
                continue;
            }
            const auto& w = near->wave;
            std::printf("  sent %s at %zu..%zu, preamble %d, spb %.3f, phase %.3f, swing %d, idle %d, low-pass %.2f, "
                        "noise %.3f, jitter %.2f\n",
                        SpacedHex(near->bytes).c_str(), near->start, near->end, near->preamble, w.samplesPerBit,
                        w.startPhase, w.swing, w.idleLevel, w.lowPassSamples, w.noiseFraction, w.jitterSamples);
            for (const Seen& x : merged)
                if (x.start + 400 >= near->start && x.start <= near->end)
                    std::printf("  merged: %llu %s %s reading '%s' other '%s'\n", (unsigned long long)x.start,
                                SpacedHex(x.bytes).c_str(), x.status.c_str(), x.reading.c_str(), x.other.c_str());
            // Each reader alone over the packet and a margin around it.
            const size_t from = near->start > 300 ? near->start - 300 : 0;
            const size_t to = std::min(s.samples.size(), near->end + 300);
            std::vector<uint16_t> cut(s.samples.begin() + static_cast<std::ptrdiff_t>(from),
                                      s.samples.begin() + static_cast<std::ptrdiff_t>(to));
            for (const Seen& x : Replay(cut, false))
                std::printf("  list alone: %llu %s %s\n", (unsigned long long)(x.start + from), SpacedHex(x.bytes).c_str(),
                            x.status.c_str());
            AskWireReader r;
            std::vector<int32_t> v(cut.begin(), cut.end());
            r.Feed(v.data(), v.size(), from);
            std::vector<AskWireFrame> frames = r.Take();
            for (auto& f : r.TakeFailed())
                frames.push_back(f);
            for (const AskWireFrame& f : frames) {
                std::printf("  wire alone: %s %llu (start bit %llu) %s spb %.3f drift %.3f bits ", f.good ? "good" : "failed",
                            (unsigned long long)f.firstSample, (unsigned long long)f.startBitSample,
                            SpacedHex(f.bytes).c_str(), f.samplesPerBit, f.drift);
                for (uint8_t b : f.bits)
                    std::printf("%d", b);
                std::printf("\n");
            }
            // The second reader over the whole stream, as in the merge.
            {
                AskWireReader whole;
                std::vector<int32_t> all(s.samples.begin(), s.samples.end());
                whole.Feed(all.data(), all.size(), 0);
                std::vector<AskWireFrame> got = whole.Take();
                for (auto& f : whole.TakeFailed())
                    got.push_back(f);
                for (const AskWireFrame& f : got)
                    if (f.endSample + 400 >= near->start && f.firstSample <= near->end + 400)
                        std::printf("  wire in stream: %s %llu..%llu %s drift %.3f\n", f.good ? "good" : "failed",
                                    (unsigned long long)f.firstSample, (unsigned long long)f.endSample,
                                    SpacedHex(f.bytes).c_str(), f.drift);
            }
            if (!dump.empty()) {
                const std::string path = dump + "/false_c" + std::to_string(ci) + "_k" + std::to_string(k) + "_" +
                                         std::to_string(good[i].start) + ".txt";
                if (FILE* f = std::fopen(path.c_str(), "w")) {
                    for (size_t j = 0; j < cut.size(); ++j)
                        std::fprintf(f, "%zu %u\n", j + from, cut[j]);
                    std::fclose(f);
                }
            }
        }
    }
    std::printf("condition %zu: %ld false frames in %ld packets\n", ci, falseFrames, perCondition);
    return 0;
}
