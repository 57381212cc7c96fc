// The wave of selected packets in a live session against the device
// emulator, saved as PNGs to look at: an Identification selected in the event
// tree, its ASK wave zoomed on two bytes with the cursors on them, and a
// Power Transmitter Capability with its FSK wave. Run it under a real X server:
//   xvfb-run -a -s "-screen 0 1600x1000x24" build/tests/wave_shot OUTDIR
#include "events/ui/QEventWindow.h"
#include "services/AppSettings.h"
#include "sim/DeviceEmulator.h"
#include "views/MainWindow.h"
#include "views/QWindowReal.h"
#include "views/SampleGui.h"
#include "views/WaveView.h"

#include <QAction>
#include <QApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QTreeView>

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

// The first item of the tree whose text holds `text`.
QModelIndex Find(QAbstractItemModel* model, const QString& text, const QModelIndex& parent = QModelIndex())
{
    for (int r = 0; r < model->rowCount(parent); ++r) {
        const QModelIndex i = model->index(r, 0, parent);
        if (model->data(i).toString().contains(text))
            return i;
        const QModelIndex below = Find(model, text, i);
        if (below.isValid())
            return below;
    }
    return QModelIndex();
}

// Clicks the item as a user does: expanded to, scrolled to, clicked.
bool ClickItem(QTreeView* view, const QString& text)
{
    const QModelIndex i = Find(view->model(), text);
    if (!i.isValid())
        return false;
    for (QModelIndex p = i.parent(); p.isValid(); p = p.parent())
        view->expand(p);
    view->scrollTo(i);
    for (int k = 0; k < 10; ++k)
        QApplication::processEvents();
    const QRect r = view->visualRect(i);
    std::printf("clicking %s at %d,%d (%dx%d) in a viewport of %dx%d\n", qPrintable(view->model()->data(i).toString()),
                r.center().x(), r.center().y(), r.width(), r.height(), view->viewport()->width(),
                view->viewport()->height());
    QTest::mouseClick(view->viewport(), Qt::LeftButton, Qt::NoModifier,
                      QPoint(std::min(r.left() + 30, view->viewport()->width() - 2), r.center().y()));
    return r.isValid();
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
    w.setGeometry(0, 0, 1000, 700);
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
    for (const char* a : {"action2K_Ware", "actionFSKWare"})
        w.Action(QLatin1String(a))->trigger();
    w.AskPanel()->setGeometry(0, 0, 1100, 600);
    w.FskPanel()->setGeometry(300, 380, 1100, 600);
    QTreeView* tree = w.Dock()->EventWindow()->EventView();
    auto has = [&](const char* text) { return Find(tree->model(), QLatin1String(text)).isValid(); };
    Wait(app, 60000, [&] { return has("Rx [") && has("Identification Identification") && has("Power Transmitter Capability"); });

    QObject::connect(w.Dock(), &QWindowReal::signals_eventSelected, [](const MsgInfo& info, int mode) {
        std::printf("selected mode %d direction %d type %d record %zu samples, bytes %s\n", mode, info.direction,
                    info.type, info.capture ? info.capture->samples.size() : 0, info.packet.PacketData.c_str());
    });
    bool ok = ClickItem(tree, QStringLiteral("Identification Identification"));
    Wait(app, 300);
    WaveView* ask = w.AskPanel()->Wave();
    const auto& bytes = ask->Trace().bytes;
    if (!ok || bytes.size() < 3) {
        std::fprintf(stderr, "no Identification wave (%s, %zu samples, %zu bits, %zu bytes, \"%s\")\n",
                     ok ? "clicked" : "not found", ask->Trace().t.size(), ask->Trace().bits.size(), bytes.size(),
                     ask->Trace().packetText.c_str());
        Save(w.AskPanel(), out + "/ask_identification.png");
        w.Action(QStringLiteral("actionDisconnect"))->trigger();
        return 1;
    }
    ok = Save(w.AskPanel(), out + "/ask_identification.png");
    // Zoomed on the second and third bytes, the cursors at their ends.
    ask->SetXRange(bytes[1].t0 - 0.3, bytes[2].t1 + 0.3);
    ask->SetCursor(0, bytes[1].t0);
    ask->SetCursor(1, bytes[2].t1);
    ask->SelectBytes(1, 1);
    Wait(app, 200);
    ok = Save(w.AskPanel(), out + "/ask_identification_two_bytes.png") && ok;

    ok = ClickItem(tree, QStringLiteral("Power Transmitter Capability")) && ok;
    Wait(app, 300);
    ok = Save(w.FskPanel(), out + "/fsk_capability.png") && ok;
    std::printf("ask: %s\nfsk: %s\n", ask->Trace().packetText.c_str(),
                w.FskPanel()->Wave()->Trace().packetText.c_str());
    w.Action(QStringLiteral("actionDisconnect"))->trigger();
    return ok ? 0 : 1;
}
