// Renders the real-time dock filled with a live-like session (the emulator's
// script played through the chains for 28 s, one refresh per 30 ms) and saves
// the window as a PNG: the picture a user sees in the middle of power
// transfer. Run it under a real X server to look at it:
//   xvfb-run -a -s "-screen 0 1600x900x24" build/tests/dock_shot dock.png [--recovered | --fsk-recovered]
// (--fsk-recovered plays a negotiation whose transmitter also answers NAK and
// ND, and selects the first transmitter packet the second FSK reader had a
// say in.)
#include "NegotiationScript.h"
#include "ReplayedSession.h"
#include "events/ui/QEventWindow.h"
#include "services/SettingParams.h"
#include "views/QWindowReal.h"

#include <QApplication>
#include <QPixmap>
#include <QTemporaryDir>

#include <cstdio>
#include <functional>

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    const QString out = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral("dock.png");
    QTemporaryDir home;
    UseViewSettings(home.path().toStdString());

    QWindowReal dock;
    dock.setWindowTitle(QStringLiteral("Coilscope"));
    dock.resize(1500, 850);
    dock.show();
    dock.StartMark();
    const QString mode = argc > 2 ? QString::fromLocal8Bit(argv[2]) : QString();
    const bool fsk = mode == QStringLiteral("--fsk-recovered");
    ReplaySessionIntoSamples(
        fsk ? 4.0 : 28.0, 9,
        [&](RealTimeSample& sample) {
            dock.PushSample(sample);
            dock.Redraw();
            app.processEvents();
        },
        fsk ? kNegotiationScript : nullptr);
    // A packet selected, as a click would select it: with --recovered, the
    // first one that the second ASK reader recovered or corrected.
    QStandardItem* root = dock.EventWindow()->Model().Root();
    const bool recovered = mode == QStringLiteral("--recovered") || fsk;
    std::function<QStandardItemEx*(QStandardItem*)> findRecovered = [&](QStandardItem* parent) -> QStandardItemEx* {
        for (int r = 0; r < parent->rowCount(); ++r) {
            auto* item = static_cast<QStandardItemEx*>(parent->child(r));
            if (item->mode == kItemEvent && (!fsk || item->direction == 1)) {
                const MsgInfo& e = dock.EventWindow()->Model().Select(item);
                if (!e.packet.reading.empty())
                    return item;
            }
            if (QStandardItemEx* found = findRecovered(item))
                return found;
        }
        return nullptr;
    };
    if (QStandardItemEx* item = recovered ? findRecovered(root) : nullptr)
        dock.EventWindowSelected(dock.EventWindow()->Model().Select(item), item->mode);
    for (int r = recovered ? -1 : root->rowCount() - 1; r >= 0; --r) {
        auto* group = static_cast<QStandardItemEx*>(root->child(r));
        if (group->mode == kItemPhase && group->rowCount() > 1) {
            auto* item = static_cast<QStandardItemEx*>(group->child(group->rowCount() - 1));
            dock.EventWindowSelected(dock.EventWindow()->Model().Select(item), item->mode);
            break;
        }
    }
    dock.EventWindow()->CatchUpNow();
    for (int k = 0; k < 20; ++k)
        app.processEvents();
    const bool ok = dock.grab().save(out);
    std::printf("%s %s (%d events)\n", ok ? "saved" : "could not save", qPrintable(out),
                dock.EventWindow()->Model().NextEventNumber() - 1);
    return ok ? 0 : 1;
}
