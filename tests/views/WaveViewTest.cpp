// The wave view of a selected packet, as a user works it: the trace fitted
// with units, zoom around the pointer, pan, fit, cursors, the decoded rows
// and a byte clicked; and the wave panels that show it.
#include "views/SampleGui.h"
#include "common/TimeText.h"
#include "views/WaveView.h"
#include "views/QwtChart.h"

#include "services/AppSettings.h"
#include "sim/AskSynth.h"
#include "sim/FskSynth.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QMouseEvent>
#include <QPushButton>
#include <QSignalSpy>
#include <QCheckBox>
#include <QLineEdit>
#include <QTest>
#include <QWheelEvent>

#include <QtCharts/QValueAxis>

namespace {

const std::vector<uint8_t> kIdentification = qisim::WithChecksum({0x71, 0x11, 0x00, 0x42, 0x12, 0x34, 0x56, 0x78});

MsgInfoPtr AskPacket(const std::vector<uint8_t>& frame = kIdentification, int direction = 2)
{
    qisim::AskWaveParams params;
    params.idleLevel = 900;
    params.swing = 1700;
    params.noiseFraction = 0.02;
    qisim::AskWaveWriter writer(params, 9);
    writer.Idle(80);
    writer.Packet(frame, 11);
    writer.Idle(60);
    auto e = std::make_shared<MsgInfo>();
    e->direction = direction;
    e->type = frame[0];
    e->common.Summary = "ask packet";
    e->packet.PacketData = SpacedHex(frame);
    e->capture = std::make_shared<TriggerData>();
    for (uint16_t s : writer.Samples())
        e->capture->samples.push_back(s);
    return e;
}

MsgInfoPtr FskPacket()
{
    qisim::FskWaveParams params;
    params.carrierHz = 128000.0;
    params.polarity = -1;
    qisim::FskWaveWriter writer(params, 4);
    writer.Carrier(50);
    const std::vector<uint8_t> frame = {0x31, 0x02, 0x39, 0x0A};  // a Power Transmitter Capability
    writer.Packet(frame, 4);
    writer.Carrier(20);
    auto e = std::make_shared<MsgInfo>();
    e->direction = 1;
    e->type = 0x31;
    e->common.Summary = "fsk packet";
    e->packet.PacketData = SpacedHex(frame);
    e->capture = std::make_shared<TriggerData>();
    for (uint16_t v : writer.Words())
        e->capture->samples.push_back(v);
    e->capture->highPeriod = 7500;
    e->capture->lowPeriod = 7440;
    return e;
}

void Wheel(QWidget* w, QPoint at, int delta)
{
    QWheelEvent e(QPointF(at), QPointF(w->mapToGlobal(at)), QPoint(), QPoint(0, delta), Qt::NoButton, Qt::NoModifier,
                  Qt::NoScrollPhase, false);
    QApplication::sendEvent(w, &e);
}

void Mouse(QWidget* w, QEvent::Type type, QPoint at, Qt::MouseButtons buttons)
{
    QMouseEvent e(type, QPointF(at), QPointF(w->mapToGlobal(at)), Qt::LeftButton, buttons, Qt::NoModifier);
    QApplication::sendEvent(w, &e);
}

void Drag(QWidget* w, QPoint from, QPoint to)
{
    Mouse(w, QEvent::MouseButtonPress, from, Qt::LeftButton);
    Mouse(w, QEvent::MouseMove, (from + to) / 2, Qt::LeftButton);
    Mouse(w, QEvent::MouseMove, to, Qt::LeftButton);
    Mouse(w, QEvent::MouseButtonRelease, to, Qt::NoButton);
}

void Click(QWidget* w, QPoint at)
{
    Mouse(w, QEvent::MouseButtonPress, at, Qt::LeftButton);
    Mouse(w, QEvent::MouseButtonRelease, at, Qt::NoButton);
}

class WaveViewTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        view.resize(900, 420);
        view.show();
    }
    WaveView view;
};

}  // namespace

TEST_F(WaveViewTest, APacketIsFittedWholeWithTheRangeOfItsTrace)
{
    const MsgInfoPtr e = AskPacket();
    view.SetEvent(*e);
    ASSERT_TRUE(view.HasTrace());
    EXPECT_EQ(view.Trace().unit, "ADC counts");
    EXPECT_DOUBLE_EQ(view.X0(), 0.0);
    EXPECT_NEAR(view.X1(), e->capture->samples.size() * 0.025, 1e-9);
    double lo = 0, hi = 0;
    view.YRange(lo, hi);
    const auto range = std::minmax_element(e->capture->samples.begin(), e->capture->samples.end());
    EXPECT_LT(lo, *range.first);
    EXPECT_GT(hi, *range.second);
    EXPECT_GT(lo, *range.first - 0.2 * (*range.second - *range.first));
    EXPECT_LT(hi, *range.second + 0.2 * (*range.second - *range.first));
    EXPECT_EQ(view.Trace().bytes.size(), kIdentification.size());
}

TEST_F(WaveViewTest, TheWheelZoomsAroundThePointerAndADoubleClickFits)
{
    view.SetEvent(*AskPacket());
    const QRect plot = view.PlotRect();
    const QPoint at(plot.left() + plot.width() / 3, plot.center().y());
    const double under = view.TimeOf(at.x());
    const double span = view.X1() - view.X0();
    Wheel(&view, at, 120 * 3);
    EXPECT_NEAR(view.X1() - view.X0(), span * 0.8 * 0.8 * 0.8, span * 1e-6);
    EXPECT_NEAR(view.TimeOf(at.x()), under, span / plot.width() * 1.5);
    Wheel(&view, at, -120);
    EXPECT_NEAR(view.X1() - view.X0(), span * 0.8 * 0.8, span * 1e-6);
    QTest::mouseDClick(&view, Qt::LeftButton, Qt::NoModifier, at);
    EXPECT_DOUBLE_EQ(view.X0(), 0.0);
    EXPECT_NEAR(view.X1(), span, 1e-9);
}

TEST_F(WaveViewTest, ADragPansAndTheLevelRangeFollowsWhatIsInView)
{
    view.SetEvent(*AskPacket());
    view.SetXRange(0.0, 1.5);  // the idle level before the first edge
    double lo = 0, hi = 0;
    view.YRange(lo, hi);
    EXPECT_LT(hi - lo, 400.0);
    const QRect plot = view.PlotRect();
    Drag(&view, QPoint(plot.right() - 10, plot.center().y()), QPoint(plot.left() + 10, plot.center().y()));
    EXPECT_GT(view.X0(), 1.0);
    EXPECT_NEAR(view.X1() - view.X0(), 1.5, 1e-9);
    view.SetXRange(5.0, 20.0);  // inside the packet: the whole swing
    view.YRange(lo, hi);
    EXPECT_GT(hi - lo, 1700.0);
}

TEST_F(WaveViewTest, TwoClicksSetTheCursorsAndTheReadoutMeasuresBetweenThem)
{
    view.SetEvent(*AskPacket());
    const QRect plot = view.PlotRect();
    Click(&view, QPoint(plot.left() + 100, plot.center().y()));
    Click(&view, QPoint(plot.left() + 300, plot.center().y()));
    const double a = view.Cursor(0), b = view.Cursor(1);
    EXPECT_NEAR(a, view.TimeOf(plot.left() + 100), 1e-9);
    EXPECT_NEAR(b, view.TimeOf(plot.left() + 300), 1e-9);
    const QString text = view.CursorText();
    EXPECT_TRUE(text.contains(QStringLiteral("Δt %1 ms").arg(b - a, 0, 'f', 3))) << text.toStdString();
    EXPECT_TRUE(text.contains(QStringLiteral("Δ %1 ADC counts").arg(view.LevelAt(b) - view.LevelAt(a), 0, 'f', 0)))
        << text.toStdString();
    // A third click moves the first cursor.
    Click(&view, QPoint(plot.left() + 50, plot.center().y()));
    EXPECT_NEAR(view.Cursor(0), view.TimeOf(plot.left() + 50), 1e-9);
    EXPECT_DOUBLE_EQ(view.Cursor(1), b);
}

TEST_F(WaveViewTest, AClickOnAByteOfTheBytesRowSelectsIt)
{
    view.SetEvent(*AskPacket());
    QSignalSpy clicked(&view, &WaveView::byteClicked);
    const analysis::WaveByte& third = view.Trace().bytes[2];
    const QRect row = view.RowRect(1);
    Click(&view, QPoint(view.XOf((third.dataT0 + third.dataT1) / 2.0), row.center().y()));
    ASSERT_EQ(clicked.count(), 1);
    EXPECT_EQ(clicked.at(0).at(0).toInt(), 2);
    EXPECT_EQ(view.SelectedByte(), 2);
    EXPECT_EQ(view.SelectedCount(), 1);
    // Not a cursor.
    EXPECT_TRUE(std::isnan(view.Cursor(0)));
    view.SelectBytes(4, 2);
    EXPECT_EQ(view.SelectedByte(), 4);
    EXPECT_EQ(view.SelectedCount(), 2);
}

TEST_F(WaveViewTest, AnFskPacketIsTheCarrierInKHz)
{
    view.SetEvent(*FskPacket());
    EXPECT_EQ(view.Trace().unit, "kHz");
    double lo = 0, hi = 0;
    view.YRange(lo, hi);
    EXPECT_GT(lo, 126.0);
    EXPECT_LT(hi, 130.0);
    EXPECT_EQ(view.Trace().bytes.size(), 4u);
    EXPECT_EQ(view.Trace().packetText, "FSKCapability, checksum good");
}

TEST(WavePanel, FskAutoTriggerFitsTheWaveWhereverTheStreamsRangeWas)
{
    AppSettings::Instance();
    SampleGui fsk(6);
    fsk.show();
    QTest::mouseClick(fsk.findChild<QCheckBox*>("checkBox_autoTrigger"), Qt::LeftButton);
    // The free-running words sat at the counter's limit.
    fsk.AdjustYRange(65385, 65685);
    fsk.ShowPackets({FskPacket()});
    ASSERT_TRUE(fsk.Wave()->isVisible());
    EXPECT_FALSE(fsk.Chart()->isVisible());
    double lo = 0, hi = 0;
    fsk.Wave()->YRange(lo, hi);
    EXPECT_GT(lo, 120.0);
    EXPECT_LT(hi, 135.0);
}

TEST(WavePanel, ASelectedPacketStaysUntilFollowThenTheNewestIsShown)
{
    AppSettings::Instance();
    SampleGui ask(5);
    ask.show();
    QTest::mouseClick(ask.findChild<QCheckBox*>("checkBox_autoTrigger"), Qt::LeftButton);
    // A packet of the other direction is not this panel's.
    EXPECT_FALSE(ask.ShowSelected(*FskPacket()));
    // Paused, the panel takes nothing live but shows what the user selects.
    QTest::mouseClick(ask.findChild<QPushButton*>("pushButton"), Qt::LeftButton);
    ASSERT_TRUE(ask.Paused());
    ASSERT_TRUE(ask.ShowSelected(*AskPacket(qisim::WithChecksum({0x04, 0x40}))));
    EXPECT_EQ(ask.Wave()->Trace().bytes.size(), 3u);
    QTest::mouseClick(ask.findChild<QPushButton*>("pushButton"), Qt::LeftButton);
    const MsgInfoPtr chosen = AskPacket(qisim::WithChecksum({0x51, 0x0A, 0x00, 0x00, 0x00, 0x00}));
    ASSERT_TRUE(ask.ShowSelected(*chosen));
    EXPECT_TRUE(ask.Pinned());
    EXPECT_TRUE(ask.findChild<QPushButton*>("pushButton_follow")->isEnabled());
    EXPECT_EQ(ask.Wave()->Trace().bytes.size(), 7u);
    ask.ShowPackets({AskPacket(qisim::WithChecksum({0x03, 0x05}))});
    EXPECT_EQ(ask.Wave()->Trace().bytes.size(), 7u);
    QTest::mouseClick(ask.findChild<QPushButton*>("pushButton_follow"), Qt::LeftButton);
    EXPECT_FALSE(ask.Pinned());
    ask.ShowPackets({AskPacket(qisim::WithChecksum({0x03, 0x05}))});
    EXPECT_EQ(ask.Wave()->Trace().bytes.size(), 3u);
    EXPECT_EQ(ask.findChild<QLineEdit*>("lineEdit_packetdata")->text(), "03 05 06 ");
}

TEST(WavePanel, AnOpenedSessionsPacketIsToldByItsRecord)
{
    AppSettings::Instance();
    SampleGui ask(5), fsk(6);
    ask.show();
    fsk.show();
    // Read back from a file: no direction, the record says which it is.
    MsgInfoPtr a = AskPacket(kIdentification, 0);
    MsgInfoPtr f = FskPacket();
    f->direction = 0;
    EXPECT_TRUE(ask.ShowSelected(*a));
    EXPECT_FALSE(fsk.ShowSelected(*a));
    EXPECT_TRUE(fsk.ShowSelected(*f));
    EXPECT_FALSE(ask.ShowSelected(*f));
    EXPECT_TRUE(ask.Wave()->isVisible());
    // Free-running, the panel shows the selected packet too, and goes back to
    // rolling on Follow.
    EXPECT_TRUE(ask.FreeRun());
    ask.ShowSamples({1, 2, 3});
    EXPECT_EQ(ask.Wave()->Trace().bytes.size(), kIdentification.size());
    ask.Follow();
    EXPECT_TRUE(ask.Chart()->isVisible());
    EXPECT_FALSE(ask.Wave()->isVisible());
}
