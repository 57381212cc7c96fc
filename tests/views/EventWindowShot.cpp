// The event window's filter, columns and dissection on a live-like session,
// and a printed page of its shown events, saved as PNGs to look at:
//   xvfb-run -a -s "-screen 0 1600x1000x24" build/tests/event_window_shot DIR
// writes DIR/filtered.png (the dock with a display filter in force),
// DIR/identification.png and DIR/configuration.png (a packet selected with
// one of its fields selected in the dissection) and DIR/print.pdf (the
// events printed as text pages).
#include "ReplayedSession.h"
#include "events/ui/QEventWindow.h"
#include "services/SettingParams.h"
#include "views/Printing.h"
#include "views/Properties.h"
#include "views/QWindowReal.h"

#include <QAbstractProxyModel>
#include <QApplication>
#include <QFileInfo>
#include <QLineEdit>
#include <QPixmap>
#include <QPrinter>
#include <QTableWidget>
#include <QTemporaryDir>
#include <QTest>
#include <QTreeView>
#include <QTreeWidget>

#include <cstdio>
#include <functional>

namespace {

QStandardItemEx* FindEvent(QStandardItem* parent, const std::function<bool(QStandardItemEx*)>& test)
{
    for (int r = 0; r < parent->rowCount(); ++r) {
        auto* item = static_cast<QStandardItemEx*>(parent->child(r));
        if (item->mode == kItemEvent && !item->hasChildren() && test(item))
            return item;
        if (QStandardItemEx* found = FindEvent(item, test))
            return found;
    }
    return nullptr;
}

void Settle(QApplication& app)
{
    for (int k = 0; k < 20; ++k)
        app.processEvents();
}

}  // namespace

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    const QString dir = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral(".");
    QTemporaryDir home;
    UseViewSettings(home.path().toStdString());

    QWindowReal dock;
    dock.setWindowTitle(QStringLiteral("Coilscope"));
    dock.resize(1500, 950);
    dock.show();
    dock.StartMark();
    ReplaySessionIntoSamples(12.0, 9, [&](RealTimeSample& sample) {
        dock.PushSample(sample);
        dock.Redraw();
        app.processEvents();
    });
    QEventWindow* events = dock.EventWindow();
    events->CatchUpNow();

    // A filter typed into the bar, as a user does.
    QLineEdit* bar = events->FilterEdit();
    bar->setFocus();
    QTest::keyClicks(bar, QStringLiteral("type == Configuration || type == Identification || ce.value < 0"));
    QTest::keyClick(bar, Qt::Key_Return);
    events->CatchUpNow();
    Settle(app);
    bool ok = dock.grab().save(dir + QStringLiteral("/filtered.png"));

    auto select = [&](const char* type, const QString& field, const QString& name) {
        QStandardItemEx* item = FindEvent(events->Model().Root(), [&](QStandardItemEx* i) {
            const analysis::EventFields* f = events->FieldsOf(i);
            return f && f->typeName == type;
        });
        if (!item) {
            std::printf("no %s event\n", type);
            return false;
        }
        events->GoTo(events->FieldsOf(item)->number);
        QTreeWidget* fields = dock.PropertyView()->FieldsView();
        const QList<QTreeWidgetItem*> found = fields->findItems(field, Qt::MatchExactly | Qt::MatchRecursive, 0);
        if (!found.isEmpty())
            fields->setCurrentItem(found.first());
        Settle(app);
        return dock.grab().save(dir + QLatin1Char('/') + name);
    };
    ok = select("Identification", QStringLiteral("Manufacturer code"), QStringLiteral("identification.png")) && ok;
    ok = select("Configuration", QStringLiteral("Window size"), QStringLiteral("configuration.png")) && ok;

    QPrinter printer(QPrinter::HighResolution);
    printer.setOutputFormat(QPrinter::PdfFormat);
    printer.setOutputFileName(dir + QStringLiteral("/print.pdf"));
    const int pages = PaintEventPages(&printer, QFileInfo(QString::fromStdString(events->Model().SidPath())).fileName(),
                                      events->ShownColumnTitles(), events->ShownRows());
    std::printf("%s: %d of %d events shown, %d pages printed\n", ok ? "saved" : "could not save",
                events->ShownEvents(), events->TotalEvents(), pages);
    return ok ? 0 : 1;
}
