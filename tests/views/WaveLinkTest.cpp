// The main window with sigrok sessions and packet waves: File > Open of a .sr
// decodes it, selecting a packet shows its wave in the panel of its
// direction, a byte clicked in the wave selects its field in the dissection
// and a field its bytes in the wave, and File > Export sigrok Session writes
// the session shown as a .sr.
#include "events/ui/QEventWindow.h"
#include "events/ui/UserSeams.h"
#include "events/StreamReplay.h"
#include "interchange/SigrokExport.h"
#include "interchange/SigrokImport.h"
#include "services/AppSettings.h"
#include "services/SettingParams.h"
#include "views/MainWindow.h"
#include "views/Properties.h"
#include "views/QWindowReal.h"
#include "views/SampleGui.h"
#include "views/WaveView.h"

#include <gtest/gtest.h>

#include <QAction>
#include <QDir>
#include <QTableWidget>
#include <QTemporaryDir>
#include <QTest>
#include <QTreeView>
#include <QTreeWidget>

#include <fstream>

namespace {

std::string TestData(const char* name)
{
    return std::string(COILSCOPE_TEST_DATA) + "/" + name;
}

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

// Clicks a tree item as a user does.
bool ClickItem(QTreeView* view, const QString& text)
{
    const QModelIndex i = Find(view->model(), text);
    if (!i.isValid())
        return false;
    for (QModelIndex p = i.parent(); p.isValid(); p = p.parent())
        view->expand(p);
    view->scrollTo(i);
    QApplication::processEvents();
    const QRect r = view->visualRect(i);
    QTest::mouseClick(view->viewport(), Qt::LeftButton, Qt::NoModifier,
                      QPoint(std::min(r.left() + 20, view->viewport()->width() - 2), r.center().y()));
    return true;
}

class WaveLinkTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        AppSettings::ReloadForTest();
        SettingParams& s = SettingParams::Instance();
        s.savePath = dir.path().toStdString() + "/sessions";
        // A decoded sigrok session is saved as a capture is, in these.
        s.eventPath = s.logPath = s.capturePath = dir.path().toStdString() + "/saved/";
        QDir().mkpath(dir.filePath(QStringLiteral("saved")));
        s.m_window_time = 15;
        SetUserMessageRecorder([this](const UserMessage& m) { messages.push_back(m); });
        SetFileAnswerer([this](const QString& title) {
            asked.push_back(title);
            return answer;
        });
    }
    void TearDown() override
    {
        SetUserMessageRecorder(nullptr);
        SetFileAnswerer(nullptr);
    }
    std::string Empty() const { return dir.path().toStdString() + "/none/ttyACM%d"; }
    QString Path(const char* name) const { return dir.filePath(QLatin1String(name)); }
    // The emulator's recorded streams as a .sr.
    QString EmulatorSr()
    {
        std::string error;
        EXPECT_TRUE(interchange::ExportStreams(TestData("emulator.2k.bin"), TestData("emulator.fsk.bin"),
                                               Path("emulator.sr").toStdString(), error))
            << error;
        return Path("emulator.sr");
    }
    void Open(MainWindow& w, const QString& path)
    {
        answer = path;
        w.Action("actionOpen")->trigger();
    }

    QTemporaryDir dir;
    std::vector<UserMessage> messages;
    std::vector<QString> asked;
    QString answer;
};

}  // namespace

TEST_F(WaveLinkTest, OpeningASigrokSessionDecodesItsPacketsWithTheirWaves)
{
    MainWindow w(Empty());
    w.show();
    Open(w, EmulatorSr());
    EXPECT_TRUE(messages.empty()) << (messages.empty() ? "" : messages[0].text.toStdString());
    QEventWindow* events = w.Dock()->EventWindow();
    EXPECT_GT(events->TotalEvents(), 50);
    ASSERT_TRUE(ClickItem(events->EventView(), QStringLiteral("Identification Identification")));
    ASSERT_TRUE(w.AskPanel()->Pinned());
    EXPECT_EQ(w.AskPanel()->Wave()->Trace().bytes.size(), 9u);
    EXPECT_EQ(w.AskPanel()->Wave()->Trace().packetText, "Identification, checksum good");
    ASSERT_TRUE(ClickItem(events->EventView(), QStringLiteral("Power Transmitter Capability")));
    ASSERT_TRUE(w.FskPanel()->Pinned());
    EXPECT_EQ(w.FskPanel()->Wave()->Trace().unit, "kHz");
    EXPECT_EQ(w.FskPanel()->Wave()->Trace().bytes.size(), 5u);
    // The decoded capture is a new session, saved in the window's session
    // folders, not beside the .sr.
    EXPECT_EQ(QDir(Path("saved")).entryList({"EventWindow_*.sid"}).size(), 1);
    EXPECT_TRUE(QDir(dir.path()).entryList({"EventWindow_*"}).isEmpty());
}

TEST_F(WaveLinkTest, AFileThatIsNotASigrokSessionIsRefusedAndTheViewKept)
{
    MainWindow w(Empty());
    std::ofstream(Path("notes.sr").toStdString()) << "not a capture";
    Open(w, Path("notes.sr"));
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].title, "Open Session");
    EXPECT_TRUE(messages[0].text.contains(QStringLiteral("is not a sigrok session"))) << messages[0].text.toStdString();
    EXPECT_EQ(w.Dock()->EventWindow()->TotalEvents(), 0);
}

TEST_F(WaveLinkTest, AByteClickedInTheWaveSelectsItsFieldAndAFieldMarksItsBytes)
{
    MainWindow w(Empty());
    w.show();
    Open(w, EmulatorSr());
    ASSERT_TRUE(ClickItem(w.Dock()->EventWindow()->EventView(), QStringLiteral("Identification Identification")));
    WaveView* wave = w.AskPanel()->Wave();
    Properties* props = w.Dock()->PropertyView();
    ASSERT_GE(wave->Trace().bytes.size(), 9u);
    // Byte 1 of an Identification holds the version.
    emit wave->byteClicked(1);
    const std::vector<int> bytes = props->SelectedBytes();
    ASSERT_FALSE(bytes.empty());
    EXPECT_EQ(bytes.front(), 1);
    ASSERT_FALSE(props->FieldsView()->selectedItems().isEmpty());
    // The field's bytes are marked in the wave.
    EXPECT_EQ(wave->SelectedByte(), 1);
    // A field chosen in the dissection marks its bytes.
    QTreeWidget* fields = props->FieldsView();
    QTreeWidgetItem* header = fields->topLevelItem(0);
    ASSERT_NE(header, nullptr);
    fields->setCurrentItem(header);
    EXPECT_EQ(wave->SelectedByte(), 0);
    EXPECT_EQ(wave->SelectedCount(), 1);
}

TEST_F(WaveLinkTest, ExportSigrokSessionWritesTheShownSessionForPulseView)
{
    MainWindow w(Empty());
    answer = Path("nothing.sr");
    w.Action("actionExportSigrok")->trigger();
    ASSERT_EQ(messages.size(), 1u);  // no session yet
    EXPECT_TRUE(messages[0].text.contains(QStringLiteral("no session")));
    messages.clear();

    Open(w, EmulatorSr());
    answer = Path("again.sr");
    w.Action("actionExportSigrok")->trigger();
    EXPECT_TRUE(messages.empty()) << (messages.empty() ? "" : messages[0].text.toStdString());
    EXPECT_EQ(asked.back(), "Export sigrok Session");
    interchange::SigrokCapture capture;
    interchange::ImportedStreams streams;
    std::string error;
    ASSERT_TRUE(interchange::ReadSigrokSession(Path("again.sr").toStdString(), capture, error)) << error;
    ASSERT_TRUE(interchange::StreamsFromSigrok(capture, "", streams, error)) << error;
    // The receiver's packets of the session come back from it.
    size_t rx = 0;
    StreamReplay replay(std::move(streams.ask), std::move(streams.fsk));
    replay.Run([&](std::vector<MsgInfoPtr>& batch) {
        for (const MsgInfoPtr& e : batch)
            rx += e->direction == 2 && e->packet.Status == "NoError" ? 1 : 0;
    });
    EXPECT_GT(rx, 30u);
}
