// The timing checker in the window: a session with one breach through the
// event window as the refresh feeds it (the carrier's edges, then the
// events), its finding marked on the packet's row, listed in the findings
// view with the summary, walked by F8, told in the packet's "Timing" group,
// and saved in the timing file beside the session's .sid.
#include "CheckedSession.h"
#include "analysis/TimingFile.h"
#include "events/SessionFile.h"
#include "events/ui/QEventWindow.h"
#include "events/ui/UserSeams.h"
#include "views/Properties.h"
#include "views/PropertyTree.h"
#include "views/TimingFindingsView.h"

#include <gtest/gtest.h>

#include <QLabel>
#include <QTemporaryDir>
#include <QTreeWidget>

namespace {

class TimingWindowTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        AppSettings::Instance();
        SettingParams& s = SettingParams::Instance();
        s.m_window_time = 15;
        s.eventPath = s.logPath = dir.path().toStdString() + "/";
        SetUserMessageRecorder([](const UserMessage&) {});
    }
    void TearDown() override { SetUserMessageRecorder(nullptr); }

    // The built-in session with a late Control Error, through the window.
    void Play(QEventWindow& w, const std::string& breach)
    {
        std::vector<uint8_t> ask, fsk;
        SynthesizeSession(34.0, 5, breach, ask, fsk);
        SettingParams settings;
        settings.m_min_freq = 110000;
        settings.m_max_freq = 210000;
        StreamReplay replay(std::move(ask), std::move(fsk), &settings);
        w.StartAcquisition();
        std::vector<CarrierEdge> edges;
        replay.Run([&](std::vector<MsgInfoPtr>& events) {
            edges.clear();
            replay.Manager().TakeCarrierEdges(edges);
            w.AddCarrierEdges(edges);
            w.AddEvents(events);
        });
        edges.clear();
        replay.Manager().TakeCarrierEdges(edges);
        w.AddCarrierEdges(edges);
        w.StopAcquisition();
        w.CatchUpNow();
    }

    QTemporaryDir dir;
};

}  // namespace

TEST_F(TimingWindowTest, AFindingIsMarkedListedWalkedToldAndSaved)
{
    QEventWindow w;
    TimingFindingsView view;
    QObject::connect(&w, &QEventWindow::timingFinding, &view, &TimingFindingsView::AddFinding);
    QObject::connect(&w, &QEventWindow::timingCleared, &view, &TimingFindingsView::ClearFindings);
    QObject::connect(&view, &TimingFindingsView::eventActivated, [&w](qint64 n) { w.GoTo(n); });
    Play(w, "ce-interval");

    const auto& findings = w.Timing().Findings();
    ASSERT_EQ(findings.size(), 1u);
    const analysis::TimingFinding f = findings[0];
    EXPECT_EQ(f.rule, analysis::TimingRule::CeInterval);
    EXPECT_TRUE(w.HasTimingFinding(f.event));
    EXPECT_GT(w.Timing().PacketsChecked(), 400u);

    // The findings view: one row, and the summary.
    view.UpdateSummary(w.Timing());
    ASSERT_EQ(view.List()->topLevelItemCount(), 1);
    QTreeWidgetItem* row = view.List()->topLevelItem(0);
    EXPECT_EQ(row->text(TimingFindingsView::kRule), QStringLiteral("ce-interval"));
    EXPECT_EQ(row->text(TimingFindingsView::kEvent), QString::number(f.event));
    EXPECT_EQ(row->text(TimingFindingsView::kSeverity), QStringLiteral("warning"));
    EXPECT_TRUE(view.Summary()->text().contains(QStringLiteral("0 errors, 1 warnings"))) << view.Summary()->text().toStdString();
    EXPECT_TRUE(view.Summary()->text().contains(QStringLiteral("ce-interval 1")));

    // A double click on the row selects the packet; its row has the warning icon.
    emit view.List()->itemDoubleClicked(row, 0);
    QStandardItem* selected = w.SelectedItem();
    ASSERT_NE(selected, nullptr);
    ASSERT_NE(w.FieldsOf(selected), nullptr);
    EXPECT_EQ(w.FieldsOf(selected)->number, f.event);
    const auto* ex = static_cast<const QStandardItemEx*>(selected);
    EXPECT_EQ(w.IconOf(*ex).cacheKey(), w.Icons().value(QStringLiteral("ept")).cacheKey());

    // F8 from the start walks to it first (the CEP timeout after End Power
    // Transfer comes later).
    w.GoTo(2);
    ASSERT_TRUE(w.NextError(true));
    EXPECT_EQ(w.FieldsOf(w.SelectedItem())->number, f.event);

    // The packet's Timing group.
    Properties props;
    props.SetTimingChecker(&w.Timing());
    MsgInfo& e = w.Model().Select(static_cast<QStandardItemEx*>(w.SelectedItem()));
    props.Fill(e, kItemEvent);
    EXPECT_EQ(props.Tree()->Value(QStringLiteral("Timing"), QStringLiteral("ce-interval")).toString().toStdString(),
              "warning: " + f.Text());
    EXPECT_EQ(props.Tree()->Value(QStringLiteral("Timing"), QStringLiteral("ask-bit-rate")).toString(),
              QStringLiteral("ok"));
    EXPECT_TRUE(props.Tree()->Value(QStringLiteral("Timing"), QStringLiteral("Bit Rate")).toString().endsWith(" Hz"));
    EXPECT_TRUE(props.Tree()->Value(QStringLiteral("Timing"), QStringLiteral("Gap Before")).toString().endsWith(" ms"));

    // The timing file beside the session's .sid: the carrier's edges and the finding.
    std::vector<CarrierEdge> edges;
    std::vector<analysis::TimingFinding> saved;
    ASSERT_TRUE(analysis::TimingFile::Read(analysis::TimingFile::PathBeside(w.Model().SidPath()), edges, saved));
    EXPECT_GT(edges.size(), 20u);
    ASSERT_EQ(saved.size(), 1u);
    EXPECT_EQ(saved[0].Line(), f.Line());

    // A new session forgets the findings.
    w.StartAcquisition();
    EXPECT_FALSE(w.HasTimingFinding(f.event));
    EXPECT_EQ(view.List()->topLevelItemCount(), 0);
}

TEST_F(TimingWindowTest, AnOpenedSessionIsJudgedAgainWithItsSavedEdges)
{
    std::string sid;
    std::string line;
    {
        QEventWindow w;
        Play(w, "terminate-after-ept");
        ASSERT_EQ(w.Timing().Findings().size(), 1u);
        line = w.Timing().Findings()[0].Line();
        sid = w.Model().SidPath();
        w.Model().CloseStreams();
    }
    // As File > Open plays it: the edges of the timing file, then the events.
    std::vector<MsgInfoPtr> events;
    ASSERT_TRUE(ReadSessionFile(sid, events));
    std::vector<CarrierEdge> edges;
    std::vector<analysis::TimingFinding> saved;
    ASSERT_TRUE(analysis::TimingFile::Read(analysis::TimingFile::PathBeside(sid), edges, saved));
    QEventWindow again;
    again.Model().SetRecordSource(sid);
    again.StartAcquisition();
    again.AddCarrierEdges(edges);
    again.AddEvents(events);
    again.StopAcquisition();
    ASSERT_EQ(again.Timing().Findings().size(), 1u);
    // The opened session numbers its events after its Start marker as the
    // live one did.
    EXPECT_EQ(again.Timing().Findings()[0].Line(), saved[0].Line());
    EXPECT_EQ(again.Timing().Findings()[0].Line(), line);
    EXPECT_EQ(again.Timing().Findings()[0].rule, analysis::TimingRule::TerminateAfterEpt);
}
