// One refresh of a wave panel, at its heaviest: the free-running roll of a
// full 500-sample span (240 new samples, what the display queue gathers in one
// 30 ms refresh at 8 kHz) and the AutoTrigger view of the longest ASK packet
// (a header, 27 message bytes and a checksum behind a 25-bit preamble at
// 2 kHz, all samples of it at 40 kHz). Prints the median and the 90th
// percentile of the panel's part of the refresh cycle (the copy handed to the
// chart) and of the chart's paint tick that follows (the series takes the
// points, lays out the spline and paints; at most every 300 ms), over 200
// refreshes on the offscreen platform.
#include "services/SettingParams.h"
#include "views/QwtChart.h"
#include "views/SampleGui.h"

#include <QApplication>
#include <QCheckBox>
#include <QElapsedTimer>
#include <QtCharts/QChartView>
#include <QtCharts/QSplineSeries>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

double Median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

double P90(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() * 9 / 10];
}

// An ASK envelope of bits of 20 samples (2 kHz at 40 kHz), the level
// changing at every bit and in the middle of the ones, with a little ripple.
std::vector<int32_t> AskEnvelope(int bits, unsigned seed)
{
    std::vector<int32_t> out;
    out.reserve(static_cast<size_t>(bits) * 20);
    bool high = false;
    for (int b = 0; b < bits; ++b) {
        seed = seed * 1103515245u + 12345u;
        const bool one = b < 25 || ((seed >> 16) & 1u);
        for (int s = 0; s < 20; ++s) {
            if (s == 0 || (one && s == 10))
                high = !high;
            out.push_back((high ? 3000 : 1000) + static_cast<int32_t>(40.0 * std::sin(s * 0.7)));
        }
    }
    return out;
}

struct Figures {
    std::vector<double> refresh, paint;
};

template <typename Refresh>
Figures Measure(QApplication& app, SampleGui& panel, Refresh refresh)
{
    Figures f;
    QElapsedTimer timer;
    for (int i = 0; i < 220; ++i) {
        timer.start();
        refresh(i);
        const double a = static_cast<double>(timer.nsecsElapsed()) / 1e6;
        // The chart's paint tick: the series takes the points, lays them out
        // and paints.
        timer.start();
        panel.Chart()->Series();
        app.processEvents();
        panel.Chart()->ChartView()->viewport()->repaint();
        const double b = static_cast<double>(timer.nsecsElapsed()) / 1e6;
        if (i >= 20) {  // the first ones fill the span
            f.refresh.push_back(a);
            f.paint.push_back(b);
        }
    }
    return f;
}

}  // namespace

int main(int argc, char** argv)
{
    setenv("QT_QPA_PLATFORM", "offscreen", 0);
    QApplication app(argc, argv);
    SettingParams::Instance().m_dac_min = 1100;
    SettingParams::Instance().m_dac_max = 2700;
    SettingParams::Instance().m_dac_value = 1700;
    SettingParams::Instance().m_ask_trigger_samples = 2200;

    SampleGui freeRun(5);
    freeRun.resize(1600, 900);
    freeRun.show();
    Figures roll = Measure(app, freeRun, [&](int i) {
        std::list<uint16_t> samples;
        for (int k = 0; k < 240; ++k)
            samples.push_back(static_cast<uint16_t>(((i * 240 + k) / 20) % 2 ? 3000 : 1000));
        freeRun.ShowSamples(samples);
    });
    std::printf("free-run, 500-sample span, 240 new samples: refresh median %.3f ms (p90 %.3f); "
                "paint tick median %.2f ms (p90 %.2f)\n",
                Median(roll.refresh), P90(roll.refresh), Median(roll.paint), P90(roll.paint));

    SampleGui trigger(5);
    trigger.resize(1600, 900);
    trigger.show();
    trigger.findChild<QCheckBox*>(QStringLiteral("checkBox_autoTrigger"))->click();
    // Preamble 25 bits, then 29 bytes of 11 bits.
    const int bits = 25 + 29 * 11;
    std::vector<std::vector<MsgInfoPtr>> batches;
    for (int i = 0; i < 4; ++i) {
        auto e = std::make_shared<MsgInfo>();
        e->direction = 2;
        e->common.Summary = "Proprietary";
        e->common.typeString = "Packet";
        e->common.logData = "Proprietary 27 bytes";
        e->packet.PacketData = std::string(29 * 3, 'A');
        e->capture = std::make_shared<TriggerData>();
        e->capture->samples = AskEnvelope(bits, 7u + static_cast<unsigned>(i));
        batches.push_back({e});
    }
    Figures packet = Measure(app, trigger, [&](int i) { trigger.ShowPackets(batches[static_cast<size_t>(i) % 4]); });
    std::printf("AutoTrigger, longest ASK packet (%zu samples): refresh median %.3f ms (p90 %.3f); "
                "paint tick median %.2f ms (p90 %.2f)\n",
                batches[0][0]->capture->samples.size(), Median(packet.refresh), P90(packet.refresh),
                Median(packet.paint), P90(packet.paint));
    return 0;
}
