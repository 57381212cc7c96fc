// Renders the main window after a session with a timing breach: the event
// tree with the packet's warning icon, its properties with the "Timing"
// group, and the "Timing Findings" dock with the summary; the finding's row
// double-clicked as a user would. Run it under a real X server to look at it:
//   xvfb-run -a -s "-screen 0 1600x900x24" build/tests/timing_shot timing.png [BREACH]
#include "CheckedSession.h"
#include "events/ui/QEventWindow.h"
#include "views/MainWindow.h"
#include "views/Properties.h"
#include "views/PropertyTree.h"
#include "views/QWindowReal.h"
#include "views/TimingFindingsView.h"

#include <QApplication>
#include <QPixmap>
#include <QTemporaryDir>
#include <QTreeView>
#include <QTreeWidget>

#include <cstdio>

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    const QString out = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral("timing.png");
    const std::string breach = argc > 2 ? argv[2] : "ce-interval";
    QTemporaryDir home;
    AppSettings::Instance();
    SettingParams& s = SettingParams::Instance();
    s.eventPath = s.logPath = home.path().toStdString() + "/";
    s.m_window_time = 15;

    MainWindow w(home.path().toStdString() + "/none/ttyACM%d");
    w.resize(1500, 880);
    w.show();
    QWindowReal* dock = w.Dock();
    dock->StartMark();
    std::vector<uint8_t> ask, fsk;
    SynthesizeSession(34.0, 5, breach, ask, fsk);
    SettingParams settings;
    settings.m_min_freq = 110000;
    settings.m_max_freq = 210000;
    StreamReplay replay(std::move(ask), std::move(fsk), &settings);
    std::vector<CarrierEdge> edges;
    replay.Run([&](std::vector<MsgInfoPtr>& events) {
        edges.clear();
        replay.Manager().TakeCarrierEdges(edges);
        dock->EventWindow()->AddCarrierEdges(edges);
        RealTimeSample sample;
        sample.events = events;
        dock->PushSample(sample);
        dock->Redraw();
        app.processEvents();
    });
    dock->EndMark();
    w.TimingView()->UpdateSummary(dock->EventWindow()->Timing());
    dock->EventWindow()->CatchUpNow();
    if (QTreeWidgetItem* row = w.TimingView()->List()->topLevelItem(0))
        emit w.TimingView()->List()->itemDoubleClicked(row, 0);
    for (int k = 0; k < 20; ++k)
        app.processEvents();
    bool ok = w.grab().save(out);
    // The selected packet's properties on their own, tall enough to show
    // its Timing group.
    Properties* props = dock->PropertyView();
    props->setParent(nullptr);
    props->resize(520, 760);
    props->show();
    props->Tree()->View()->expandAll();
    props->Tree()->View()->scrollToBottom();
    for (int k = 0; k < 10; ++k)
        app.processEvents();
    QString propsOut = out;
    propsOut.replace(QStringLiteral(".png"), QStringLiteral("-properties.png"));
    ok = props->grab().save(propsOut) && ok;
    std::printf("%s %s: %zu findings\n", ok ? "saved" : "could not save", qPrintable(out),
                dock->EventWindow()->Timing().Findings().size());
    return ok ? 0 : 1;
}
