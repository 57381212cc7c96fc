// Events through the data manager, from raw frame to released event, and
// session records written per second.
#include "common/Clock.h"
#include "common/TimeText.h"
#include "events/DataManager.h"
#include "events/SessionFile.h"

#include <benchmark/benchmark.h>

namespace {

std::shared_ptr<CMsgData> Frame(std::vector<uint8_t> bytes, uint32_t direction, uint64_t start, bool pattern = false)
{
    auto f = std::make_shared<CMsgData>();
    f->SetFrame(bytes.data(), bytes.size());
    f->direction = direction;
    f->pattern = pattern ? 1 : 0;
    f->packet.Status = "NoError";
    f->packet.PacketData = SpacedHex(bytes.data(), bytes.size());
    f->packet.numbytesInPacket = bytes.size();
    f->capture = std::make_shared<TriggerData>();
    f->capture->startTime = start;
    FillTiming(*f, *f->capture, 128000);
    return f;
}

// A power-transfer mix: per 20 frames, 16 control errors, 2 received powers,
// one transmitter charge status and one ACK pattern.
void BM_DataManagerEvents(benchmark::State& state)
{
    ManualClock clock(1);
    SetClock(&clock);
    CDataManager dm;
    dm.AskFilter().SetPhase(5);
    uint64_t t = 0;
    size_t released = 0;
    std::vector<MsgInfoPtr> out;
    for (auto _ : state) {
        for (int k = 0; k < 20; ++k) {
            t += 50000;
            if (k == 7 || k == 17)
                dm.Dispatcher().Receive(Frame({0x04, 0x40, 0x44}, 2, t));
            else if (k == 11)
                dm.FskFilter().Emit(Frame({0x1F, 0x64, 0x7B}, 1, t));
            else if (k == 12)
                dm.FskFilter().Emit(Frame({0xFF}, 1, t, true));
            else
                dm.Dispatcher().Receive(Frame({0x03, static_cast<uint8_t>(k), static_cast<uint8_t>(3 ^ k)}, 2, t));
        }
        clock.Advance(1001);
        dm.GetEvents(out);
        released += out.size();
    }
    SetClock(nullptr);
    state.counters["events/s"] = benchmark::Counter(static_cast<double>(released), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_DataManagerEvents);

void BM_ToJson(benchmark::State& state)
{
    MsgInfo m;
    m.common.logData = "ControlError -1.0% @128000HZ";
    m.common.typeString = "ControlError ";
    m.common.Summary = "-1.0%";
    m.str = "ControlError -1.0% @128000HZ";
    m.type = 3;
    m.eventG.eventCount = 1;
    m.packet.PacketData = "03 FF FC ";
    m.packet.Status = "NoError";
    m.timing.startTimeStamp = "00:00:01.000000";
    size_t bytes = 0;
    for (auto _ : state) {
        const std::string text = m.ToJson();
        bytes += text.size();
        benchmark::DoNotOptimize(text.data());
    }
    state.counters["records/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["bytes/record"] = static_cast<double>(bytes) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_ToJson);

}  // namespace

BENCHMARK_MAIN();
