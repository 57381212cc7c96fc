// The main window with a saved session opened in place, one of its events
// selected whose capture record is damaged in the record file, as a PNG; and
// the ASK wave panel with the wave of the control error before it, read back
// from the record file, as OUT_wave.png:
//   xvfb-run -a -s "-screen 0 1600x1000x24" build/tests/opened_session_shot OUT.png
// The session is the emulator's recorded streams (tests/data) replayed into
// a session folder under a temporary folder; the record of one control
// error gets a changed byte before the session is opened.
#include "events/EventLogModel.h"
#include "events/RecordStore.h"
#include "events/StreamReplay.h"
#include "events/ui/QEventWindow.h"
#include "events/ui/UserSeams.h"
#include "services/AppSettings.h"
#include "services/SettingParams.h"
#include "views/MainWindow.h"
#include "views/Properties.h"
#include "views/PropertyTree.h"
#include "views/QWindowReal.h"
#include "views/SampleGui.h"
#include "views/WaveView.h"

#include <QAction>
#include <QApplication>
#include <QDir>
#include <QGuiApplication>
#include <QHelpEvent>
#include <QScreen>
#include <QStandardItem>
#include <QPixmap>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QTreeView>

#include <cstdio>
#include <fstream>
#include <iterator>

namespace {

std::vector<uint8_t> Bytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

QStandardItemEx* NthControlError(QStandardItem* parent, int& left)
{
    for (int r = 0; r < parent->rowCount(); ++r) {
        auto* item = static_cast<QStandardItemEx*>(parent->child(r));
        if (item->mode == kItemEvent && !item->hasChildren() && item->type == 3 && item->recordNumber && --left == 0)
            return item;
        if (QStandardItemEx* found = NthControlError(item, left))
            return found;
    }
    return nullptr;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: opened_session_shot OUT.png\n");
        return 2;
    }
    QTemporaryDir home;
    qputenv("XDG_DATA_HOME", (home.path() + "/data").toLocal8Bit());
    qputenv("XDG_CONFIG_HOME", (home.path() + "/config").toLocal8Bit());
    QApplication app(argc, argv);
    AppSettings::Instance();
    SettingParams& s = SettingParams::Instance();
    const std::string folder = home.path().toStdString() + "/saved/";
    QDir().mkpath(QString::fromStdString(folder));
    s.eventPath = s.logPath = s.capturePath = folder;
    s.savePath = home.path().toStdString();

    // The session, saved as a capture saves it.
    std::string sid;
    uint64_t damaged = 0;
    {
        StreamReplay replay(Bytes(std::string(COILSCOPE_TEST_DATA) + "/emulator.2k.bin"),
                            Bytes(std::string(COILSCOPE_TEST_DATA) + "/emulator.fsk.bin"));
        EventLogModel model;
        model.StartAcquisition();
        replay.Run([&](std::vector<MsgInfoPtr>& batch) { model.AddEvents(batch); });
        model.StopAcquisition();
        sid = model.SidPath();
        int left = 12;
        if (QStandardItemEx* item = NthControlError(model.Root(), left))
            damaged = item->recordNumber;
    }
    const std::string rec = RecordStore::PathBeside(sid);
    std::vector<uint8_t> bytes = Bytes(rec);
    std::vector<std::pair<uint64_t, RecordStore::Entry>> frames;
    RecordStore::Scan(bytes.data(), bytes.size(), frames);
    for (const auto& f : frames)
        if (f.first == damaged)
            bytes[f.second.offset + f.second.length / 2] ^= 0x20;
    std::ofstream(rec, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));

    SetFileAnswerer([&sid](const QString&) { return QString::fromStdString(sid); });
    MainWindow w(home.path().toStdString() + "/none/ttyACM%d");
    w.setWindowState(Qt::WindowNoState);
    w.resize(1580, 960);
    w.show();
    QTest::qWait(300);
    w.actionBtns(w.findChild<QAction*>(QStringLiteral("actionOpen")));
    QTest::qWait(300);
    QEventWindow* events = w.Dock()->EventWindow();
    int left = 12;
    QStandardItemEx* item = NthControlError(events->Model().Root(), left);
    if (!item) {
        std::fprintf(stderr, "no control error with a record in the session\n");
        return 1;
    }
    const QModelIndex index = item->index();
    events->eventClidked(index);
    QTest::qWait(300);
    // The note stands after the event's groups: scrolled into view.
    w.Dock()->PropertyView()->Tree()->View()->scrollToBottom();
    QTest::qWait(300);
    bool saved = w.grab().save(QString::fromLocal8Bit(argv[1]));
    std::printf("%s: %s opened in place, record %llu damaged, note \"%s\"\n", saved ? "saved" : "not saved",
                sid.c_str(), static_cast<unsigned long long>(damaged),
                events->Model().SelectedRecordNote().toLocal8Bit().constData());

    // The note wider than the pane, read whole in the tool tip of its value,
    // as a pointer resting on it shows it: the screen with the tool tip.
    {
        QTreeView* view = w.Dock()->PropertyView()->Tree()->View();
        QStandardItem* cell = w.Dock()->PropertyView()->Tree()->ValueItem(QStringLiteral("Capture Record"),
                                                                          QStringLiteral("Wave"));
        if (cell) {
            const QRect rect = view->visualRect(cell->index());
            const QPoint at = rect.topLeft() + QPoint(20, rect.height() / 2);
            QHelpEvent hover(QEvent::ToolTip, at, view->viewport()->mapToGlobal(at));
            QApplication::sendEvent(view->viewport(), &hover);
            QTest::qWait(500);
            QString tipPath = QString::fromLocal8Bit(argv[1]);
            tipPath.replace(QRegularExpression(QStringLiteral("\\.png$")), QString());
            tipPath += QStringLiteral("_tooltip.png");
            saved = QGuiApplication::primaryScreen()->grabWindow(0).save(tipPath) && saved;
            std::printf("%s: the tool tip of the note, \"%s\"\n", tipPath.toLocal8Bit().constData(),
                        cell->toolTip().toLocal8Bit().constData());
        }
    }

    // The control error before it, whose record is whole: its wave.
    w.Action(QStringLiteral("action2K_Ware"))->trigger();
    w.AskPanel()->setGeometry(0, 0, 1100, 600);
    left = 11;
    QStandardItemEx* whole = NthControlError(events->Model().Root(), left);
    if (!whole) {
        std::fprintf(stderr, "no earlier control error\n");
        return 1;
    }
    events->eventClidked(whole->index());
    QTest::qWait(500);
    QString wavePath = QString::fromLocal8Bit(argv[1]);
    wavePath.replace(QRegularExpression(QStringLiteral("\\.png$")), QString());
    wavePath += QStringLiteral("_wave.png");
    saved = w.AskPanel()->grab().save(wavePath) && saved;
    std::printf("%s: record %llu, wave of %zu samples, \"%s\"\n", wavePath.toLocal8Bit().constData(),
                static_cast<unsigned long long>(whole->recordNumber), w.AskPanel()->Wave()->Trace().t.size(),
                w.AskPanel()->Wave()->Trace().packetText.c_str());
    return saved ? 0 : 1;
}
