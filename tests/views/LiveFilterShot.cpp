// The main window during a live session against the device emulator, with a
// display filter typed into the event window's bar, saved as a PNG to look
// at. Run it under a real X server:
//   xvfb-run -a -s "-screen 0 1600x1000x24" build/tests/live_filter_shot OUT.png ['FILTER']
#include "events/ui/QEventWindow.h"
#include "services/AppSettings.h"
#include "sim/DeviceEmulator.h"
#include "views/MainWindow.h"
#include "views/QWindowReal.h"

#include <QAction>
#include <QApplication>
#include <QElapsedTimer>
#include <QLineEdit>
#include <QPixmap>
#include <QTemporaryDir>
#include <QThread>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
    QTemporaryDir home;
    setenv("XDG_DATA_HOME", (home.path() + "/data").toLocal8Bit().constData(), 1);
    setenv("XDG_CONFIG_HOME", (home.path() + "/config").toLocal8Bit().constData(), 1);
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Coilscope"));
    const QString out = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral("live_filter.png");
    const QString filter = argc > 2 ? QString::fromLocal8Bit(argv[2])
                                    : QStringLiteral("dir == tx || ce.value < 0 || type == \"Configuration\"");

    coilsim::EmulatorOptions o;
    o.dir = home.path().toStdString() + "/ports";
    o.noise = true;
    o.speed = 2.0;
    coilsim::DeviceEmulator device(o);
    std::string error;
    if (!device.Start(error)) {
        std::fprintf(stderr, "emulator: %s\n", error.c_str());
        return 1;
    }
    AppSettings::Instance();
    MainWindow w(device.Directory() + "/ttyACM%d");
    w.setGeometry(0, 0, 1600, 1000);
    w.show();
    auto wait = [&app](int ms) {
        QElapsedTimer t;
        t.start();
        while (t.elapsed() < ms) {
            app.processEvents(QEventLoop::AllEvents, 20);
            QThread::msleep(5);
        }
    };
    w.Action(QStringLiteral("actionConnect"))->trigger();
    for (int k = 0; k < 5 && w.Controller().Found() && !w.Controller().Acquiring(); ++k) {
        w.Action(QStringLiteral("actionStop"))->trigger();
        w.Action(QStringLiteral("actionStart"))->trigger();
    }
    if (!w.Controller().Acquiring()) {
        std::fprintf(stderr, "not acquiring\n");
        return 1;
    }
    wait(6000);
    const bool accepted = w.Dock()->EventWindow()->SetFilter(filter);
    wait(12000);
    // The tree holds its painting between catch-ups: as a user's eye would,
    // the picture is taken once it has caught up.
    w.Dock()->EventWindow()->CatchUpNow();
    app.processEvents();
    const bool ok = w.grab().save(out);
    std::printf("%s %s, filter %s\n", ok ? "saved" : "could not save", qPrintable(out),
                accepted ? "accepted" : "refused");
    w.Action(QStringLiteral("actionDisconnect"))->trigger();
    return ok ? 0 : 1;
}
