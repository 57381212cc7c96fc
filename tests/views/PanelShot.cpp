// The wave panels and the power monitor of a live session against the device
// emulator, saved as PNGs to look at: both panels free-running, both on
// AutoTrigger, the power monitor after a minute, the product test panel and
// the about box. Run it under a real X
// server:
//   xvfb-run -a -s "-screen 0 1600x900x24" build/tests/panel_shot OUTDIR [monitor-seconds]
#include "services/AppSettings.h"
#include "services/SettingParams.h"
#include "sim/DeviceEmulator.h"
#include "views/ABout.h"
#include "views/MainWindow.h"
#include "views/PercentMonitor.h"
#include "views/QProductTest.h"
#include "views/SampleGui.h"

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QElapsedTimer>
#include <QLineEdit>
#include <QPixmap>
#include <QTemporaryDir>
#include <QThread>

#include <cstdio>
#include <cstdlib>
#include <functional>

namespace {

void Wait(QApplication& app, int ms, const std::function<bool()>& until = nullptr)
{
    QElapsedTimer t;
    t.start();
    while (t.elapsed() < ms && !(until && until())) {
        app.processEvents(QEventLoop::AllEvents, 20);
        QThread::msleep(5);
    }
}

bool Save(QWidget* w, const QString& path)
{
    const bool ok = w->grab().save(path);
    std::printf("%s %s\n", ok ? "saved" : "could not save", qPrintable(path));
    return ok;
}

}  // namespace

int main(int argc, char** argv)
{
    QTemporaryDir home;
    setenv("XDG_DATA_HOME", (home.path() + "/data").toLocal8Bit().constData(), 1);
    setenv("XDG_CONFIG_HOME", (home.path() + "/config").toLocal8Bit().constData(), 1);
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Coilscope"));
    const QString out = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral(".");
    const int monitorSeconds = argc > 2 ? std::atoi(argv[2]) : 60;

    coilsim::EmulatorOptions o;
    o.dir = home.path().toStdString() + "/ports";
    o.noise = true;
    coilsim::DeviceEmulator device(o);
    std::string error;
    if (!device.Start(error)) {
        std::fprintf(stderr, "emulator: %s\n", error.c_str());
        return 1;
    }
    AppSettings::Instance();
    MainWindow w(device.Directory() + "/ttyACM%d");
    w.setWindowState(Qt::WindowNoState);
    w.setGeometry(0, 0, 800, 500);
    w.show();
    w.Action(QStringLiteral("actionConnect"))->trigger();
    for (int k = 0; k < 5 && w.Controller().Found() && !w.Controller().Acquiring(); ++k) {
        w.Action(QStringLiteral("actionStop"))->trigger();
        w.Action(QStringLiteral("actionStart"))->trigger();
    }
    if (!w.Controller().Acquiring()) {
        std::fprintf(stderr, "not acquiring\n");
        return 1;
    }
    QElapsedTimer session;
    session.start();
    // The product test panel with the device's number, and the about box.
    w.Action(QStringLiteral("actionProductTest"))->trigger();
    w.Action(QStringLiteral("actionAbout"))->trigger();
    Wait(app, 300);
    bool ok = Save(w.ProductTest(), out + "/product_test.png");
    ok = Save(w.About(), out + "/about.png") && ok;
    w.ProductTest()->hide();
    w.About()->hide();
    for (const char* a : {"action2K_Ware", "actionFSKWare", "actionPercent"})
        w.Action(QLatin1String(a))->trigger();
    w.AskPanel()->setGeometry(0, 0, 846, 542);
    w.FskPanel()->setGeometry(750, 0, 846, 542);
    w.Monitor()->setGeometry(400, 560, 653, 261);
    // Free-running, in power transfer.
    Wait(app, 12000);
    ok = Save(w.AskPanel(), out + "/ask_free_run.png") && ok;
    ok = Save(w.FskPanel(), out + "/fsk_free_run.png") && ok;
    // AutoTrigger: the newest packet of each direction.
    for (SampleGui* p : {w.AskPanel(), w.FskPanel()})
        p->findChild<QCheckBox*>(QStringLiteral("checkBox_autoTrigger"))->click();
    auto shown = [](SampleGui* p) {
        return !p->findChild<QLineEdit*>(QStringLiteral("lineEdit_packetdata"))->text().isEmpty();
    };
    Wait(app, 30000, [&] { return shown(w.AskPanel()) && shown(w.FskPanel()); });
    Wait(app, 600);
    ok = Save(w.AskPanel(), out + "/ask_auto_trigger.png") && ok;
    ok = Save(w.FskPanel(), out + "/fsk_auto_trigger.png") && ok;
    Wait(app, monitorSeconds * 1000 - static_cast<int>(session.elapsed()));
    Wait(app, 400);
    ok = Save(w.Monitor(), out + "/power_monitor.png") && ok;
    std::printf("power log %s\n", w.Monitor()->LogPath().c_str());
    w.Action(QStringLiteral("actionDisconnect"))->trigger();
    return ok ? 0 : 1;
}
