// Drawing the wave of a selected packet, at its heaviest: the longest Qi
// packet (a header, 27 message bytes and a checksum) of either side, its
// record handed to the wave view (the trace, the data line sliced and read
// into bit cells and bytes) and the view painted whole, at 1100 x 560 pixels
// on the offscreen platform, and again zoomed on two bytes. Prints the
// median and the 90th percentile over 100 selections of each; the target is
// 16 ms (one frame at 60 Hz).
#include "sim/AskSynth.h"
#include "common/TimeText.h"
#include "sim/FskSynth.h"
#include "views/WaveView.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QPixmap>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

double Quantile(std::vector<double> v, double q)
{
    std::sort(v.begin(), v.end());
    return v[static_cast<size_t>(q * static_cast<double>(v.size() - 1))];
}

std::vector<uint8_t> LongestFrame()
{
    std::vector<uint8_t> message = {0xFF};
    for (int i = 0; i < 27; ++i)
        message.push_back(static_cast<uint8_t>(i * 37 + 11));
    return qisim::WithChecksum(message);
}

MsgInfo AskLongest()
{
    qisim::AskWaveParams params;
    params.noiseFraction = 0.02;
    params.jitterSamples = 1.0;
    qisim::AskWaveWriter writer(params, 3);
    writer.Idle(200);
    writer.Packet(LongestFrame(), 25);
    writer.Idle(200);
    MsgInfo e;
    e.direction = 2;
    e.type = 0xFF;
    e.packet.PacketData = SpacedHex(LongestFrame());
    e.capture = std::make_shared<TriggerData>();
    for (uint16_t s : writer.Samples())
        e.capture->samples.push_back(s);
    return e;
}

MsgInfo FskLongest()
{
    qisim::FskWaveParams params;
    params.noiseTicks = 1.0;
    qisim::FskWaveWriter writer(params, 3);
    writer.Carrier(50);
    writer.Packet(LongestFrame(), 4);
    writer.Carrier(50);
    MsgInfo e;
    e.direction = 1;
    e.type = 0xFF;
    e.packet.PacketData = SpacedHex(LongestFrame());
    e.capture = std::make_shared<TriggerData>();
    for (uint16_t w : writer.Words())
        e.capture->samples.push_back(w);
    e.capture->highPeriod = 7560;
    e.capture->lowPeriod = 7500;
    return e;
}

void Measure(WaveView& view, const MsgInfo& e, const char* what)
{
    std::vector<double> whole, zoomed;
    QPixmap target(view.size());
    QElapsedTimer timer;
    for (int i = 0; i < 110; ++i) {
        timer.start();
        view.SetEvent(e);
        view.render(&target);
        const double a = static_cast<double>(timer.nsecsElapsed()) / 1e6;
        const auto& bytes = view.Trace().bytes;
        timer.start();
        if (bytes.size() > 3)
            view.SetXRange(bytes[2].t0, bytes[3].t1);
        view.render(&target);
        const double b = static_cast<double>(timer.nsecsElapsed()) / 1e6;
        if (i >= 10) {
            whole.push_back(a);
            zoomed.push_back(b);
        }
    }
    std::printf("%s: %zu samples, %zu bytes read; selected and drawn whole: median %.2f ms, 90th percentile %.2f ms; "
                "zoomed on two bytes: median %.2f ms, 90th percentile %.2f ms (target 16 ms)\n",
                what, view.Trace().t.size(), view.Trace().bytes.size(), Quantile(whole, 0.5), Quantile(whole, 0.9),
                Quantile(zoomed, 0.5), Quantile(zoomed, 0.9));
}

}  // namespace

int main(int argc, char** argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    WaveView view;
    view.resize(1100, 560);
    view.show();
    app.processEvents();
    Measure(view, AskLongest(), "ASK, the longest packet");
    Measure(view, FskLongest(), "FSK, the longest packet");
    return 0;
}
