// One refresh of the real-time dock at its heaviest: a full twenty-second
// history, a batch of 30 new events, and the event window at its line limit
// (a fifteen-minute window: 7500 log lines, the open phase group at its row
// limit). Prints the median and the 90th percentile of push + redraw, and of
// push + redraw + the paint that follows, over 300 refreshes on the offscreen
// platform.
#include "ReplayedSession.h"
#include "events/ui/QEventWindow.h"
#include "services/SettingParams.h"
#include "views/QWindowReal.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

MsgInfoPtr Event(int type, const char* text, float controlError = 0.0f)
{
    auto e = std::make_shared<MsgInfo>();
    e->type = type;
    e->direction = 2;
    e->str = QString::fromLatin1(text);
    e->common.logData = text;
    e->eventG.eventCount = 1;
    e->packet.PacketData = "03 05 06 ";
    e->packet.controlErrorValue = controlError;
    e->packet.controlErrorFreq = 120000;
    return e;
}

// Power transfer as it runs: control errors, with a received power now and
// then that ends their sub-group.
std::vector<MsgInfoPtr> Batch(int k)
{
    std::vector<MsgInfoPtr> batch;
    for (int i = 0; i < 30; ++i)
        batch.push_back(i % 6 == 5 ? Event(4, "ReceivedPower 45.0%") : Event(3, "ControlError 1.0%", (k + i) % 7));
    return batch;
}

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

}  // namespace

int main(int argc, char** argv)
{
    setenv("QT_QPA_PLATFORM", "offscreen", 0);
    QTemporaryDir home;
    setenv("XDG_DATA_HOME", home.path().toLocal8Bit().constData(), 1);
    QApplication app(argc, argv);
    UseViewSettings(home.path().toStdString());

    QWindowReal dock;
    dock.resize(1600, 900);
    dock.show();
    dock.StartMark();
    float t = 0.0f;
    int k = 0;
    auto sample = [&](bool withEvents) {
        RealTimeSample r;
        if (withEvents)
            r.events = Batch(k++);
        r.frequencyHz = 120000.0 + (k % 50) * 10.0;
        r.percent = 45.0 + (k % 10);
        r.controlError = (k % 7) - 3;
        r.packets = k * 30;
        r.time = t;
        t += 0.03f;
        return r;
    };
    // Fill the event window to its limits, and the history to twenty seconds.
    EventLogModel& model = dock.EventWindow()->Model();
    while (model.LogLines().size() < model.LineLimit() ||
           model.PhaseGroup()->rowCount() < model.LineLimit() / 10 || dock.TimeAxis().size() < 660) {
        dock.PushSample(sample(model.LogLines().size() < model.LineLimit() || k < 400));
        dock.Redraw();
        app.processEvents();
    }
    std::printf("event window: %d log lines (limit %d), open group %d rows; history %d samples\n",
                static_cast<int>(model.LogLines().size()), model.LineLimit(), model.PhaseGroup()->rowCount(),
                static_cast<int>(dock.TimeAxis().size()));

    std::vector<double> refresh, withPaint;
    QElapsedTimer timer;
    for (int i = 0; i < 300; ++i) {
        RealTimeSample r = sample(true);
        timer.start();
        dock.PushSample(r);
        dock.Redraw();
        const double a = static_cast<double>(timer.nsecsElapsed()) / 1e6;
        app.processEvents();
        const double b = static_cast<double>(timer.nsecsElapsed()) / 1e6;
        refresh.push_back(a);
        withPaint.push_back(b);
    }
    std::printf("dock refresh (push + redraw, 30 events): median %.2f ms, p90 %.2f ms\n", Median(refresh),
                P90(refresh));
    std::printf("dock refresh and its paint:              median %.2f ms, p90 %.2f ms\n", Median(withPaint),
                P90(withPaint));
    return 0;
}
