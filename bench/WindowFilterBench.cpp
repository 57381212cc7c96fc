// Not a Google benchmark: the display filter of the event window over an
// eight-hour session. The events of bench/TenMinuteSession.h (440 000 by
// default) go into the window as a live session brings them, in refreshes of
// 30; then each filter is typed into the bar, and the time until the tree
// shows what it passes is printed (the fields are gathered as events come,
// so a filter runs over them and over the tree's rows), as is the time to
// take the filter away again.
#include "ReplayedSession.h"
#include "TenMinuteSession.h"
#include "events/ui/QEventWindow.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>

#include <cstdio>
#include <cstdlib>
#include <vector>

int main(int argc, char** argv)
{
    setenv("QT_QPA_PLATFORM", "offscreen", 0);
    QTemporaryDir home;
    setenv("XDG_DATA_HOME", home.path().toLocal8Bit().constData(), 1);
    setenv("XDG_CONFIG_HOME", home.path().toLocal8Bit().constData(), 1);
    QApplication app(argc, argv);
    UseViewSettings(home.path().toStdString());
    const size_t target = argc > 1 ? static_cast<size_t>(std::atol(argv[1])) : 440000;
    const LongSession session = MakeLongSession(target);
    if (session.events.empty()) {
        std::fprintf(stderr, "window_filter: the replay gave no events\n");
        return 1;
    }

    QEventWindow window;
    window.resize(1200, 800);
    window.show();
    QElapsedTimer timer;
    timer.start();
    std::vector<MsgInfoPtr> batch;
    for (size_t k = 0; k < session.events.size(); ++k) {
        batch.push_back(std::make_shared<MsgInfo>(session.events[k]));
        if (batch.size() == 30 || k + 1 == session.events.size()) {
            window.AddEvents(batch);
            batch.clear();
        }
    }
    window.CatchUpNow();
    app.processEvents();
    std::printf("event window: %d events in the tree, taken in %.1f s\n", window.TotalEvents(),
                static_cast<double>(timer.elapsed()) / 1000.0);

    double worst = 0.0;
    for (const char* text : BenchFilters()) {
        timer.start();
        if (!window.SetFilter(QString::fromUtf8(text))) {
            std::fprintf(stderr, "window_filter: refused %s\n", text);
            return 1;
        }
        app.processEvents();
        const double set = static_cast<double>(timer.nsecsElapsed()) / 1e9;
        const int shown = window.ShownEvents();
        timer.start();
        window.SetFilter(QString());
        app.processEvents();
        const double cleared = static_cast<double>(timer.nsecsElapsed()) / 1e9;
        worst = std::max(worst, std::max(set, cleared));
        std::printf("%-90s %7d shown: %.3f s, all again %.3f s\n", text, shown, set, cleared);
    }
    std::printf("slowest filter in the window: %.3f s for %d events (target < 1 s): %s\n", worst,
                window.TotalEvents(), worst < 1.0 ? "met" : "NOT MET");
    return 0;
}
