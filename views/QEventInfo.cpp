#include "views/QEventInfo.h"

#include "services/SettingParams.h"

#include <QGridLayout>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QScrollArea>
#include <QTabBar>
#include <QTabWidget>
#include <QVBoxLayout>

#include <algorithm>
#include <cmath>

namespace {

// One gauge: a line edit with its caption, a bar, and the bar's end labels.
struct Gauge {
    QLineEdit* text;
    QProgressBar* bar;
    QLabel* left;
    QLabel* right;
};

Gauge AddGauge(QVBoxLayout* page, const QString& title, const QString& caption, const QString& left,
               const QString& right, const QString& name)
{
    auto* box = new QGroupBox(title);
    box->setObjectName(QStringLiteral("groupBox_") + name);
    auto* grid = new QGridLayout(box);
    grid->setContentsMargins(6, 2, 6, 4);
    grid->setVerticalSpacing(4);
    Gauge g{};
    g.text = new QLineEdit(box);
    g.text->setObjectName(QStringLiteral("lineEdit_") + name);
    g.text->setReadOnly(true);
    // The texts and bars change many times a second; filled in their own
    // background they are opaque to the painter, so the group box behind them
    // is not painted again with every change.
    g.text->setAutoFillBackground(true);
    auto* label = new QLabel(caption, box);
    g.bar = new QProgressBar(box);
    g.bar->setObjectName(QStringLiteral("progressBar_") + name);
    g.bar->setAutoFillBackground(true);
    g.left = new QLabel(left, box);
    g.left->setObjectName(QStringLiteral("label_") + name + QStringLiteral("_left"));
    g.right = new QLabel(right, box);
    g.right->setObjectName(QStringLiteral("label_") + name + QStringLiteral("_right"));
    g.right->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    // Two rows: the caption and the value, then the bar between its two
    // end labels. The four gauges fit a short screen without scrolling.
    grid->addWidget(label, 0, 0);
    grid->addWidget(g.text, 0, 1, 1, 2);
    grid->addWidget(g.left, 1, 0);
    grid->addWidget(g.bar, 1, 1);
    grid->addWidget(g.right, 1, 2);
    grid->setColumnStretch(1, 1);
    page->addWidget(box);
    return g;
}

}  // namespace

QEventInfo::QEventInfo(QWidget* parent) : PanelDialog(parent)
{
    setObjectName(QStringLiteral("QEventInfo"));
    resize(640, 360);
    setFocusPolicy(Qt::ClickFocus);
    setAcceptDrops(false);
    setWindowTitle(QStringLiteral("Event Info"));
    auto* outer = new QGridLayout(this);
    outer->setContentsMargins(2, 2, 2, 2);
    auto* scroll = new QScrollArea(this);
    m_scroll = scroll;
    scroll->setWidgetResizable(true);
    scroll->setAutoFillBackground(true);
    outer->addWidget(scroll, 0, 0);
    auto* scrollPage = new QWidget();
    auto* scrollGrid = new QGridLayout(scrollPage);
    scrollGrid->setContentsMargins(2, 2, 2, 2);
    m_tabs = new QTabWidget(scrollPage);
    m_tabs->setTabShape(QTabWidget::Triangular);
    m_tabs->setUsesScrollButtons(true);
    m_tabs->setTabsClosable(false);
    scrollGrid->addWidget(m_tabs, 0, 0);
    scroll->setWidget(scrollPage);

    auto* tab = new QWidget();
    auto* page = new QVBoxLayout(tab);
    page->setContentsMargins(6, 4, 6, 4);
    page->setSpacing(4);
    const Gauge freq = AddGauge(page, QStringLiteral("Operating Frequency"), QStringLiteral("Frequency"),
                                QStringLiteral("85 kHz"), QStringLiteral("600 kHz"), QStringLiteral("freq"));
    m_freqText = freq.text;
    m_freqBar = freq.bar;
    m_freqLeft = freq.left;
    m_freqRight = freq.right;
    m_freqBar->setRange(85000, 600000);
    m_freqBar->setTextVisible(false);
    const Gauge ce = AddGauge(page, QStringLiteral("Control Error"), QStringLiteral("Control Error"),
                              QStringLiteral("-100%"), QStringLiteral("100%"), QStringLiteral("ce"));
    m_ceText = ce.text;
    m_ceBar = ce.bar;
    m_ceBar->setRange(-100, 100);
    m_ceBar->setTextVisible(false);
    const Gauge power = AddGauge(page, QStringLiteral("Power Received"), QStringLiteral("Power"), QStringLiteral("0%"),
                                 QStringLiteral("200%"), QStringLiteral("power"));
    m_powerText = power.text;
    m_powerBar = power.bar;
    m_powerBar->setRange(0, 200);
    m_powerBar->setFormat(QStringLiteral("%v%"));
    auto* packets = new QGroupBox(QStringLiteral("Packets Report (Error/Total)"), tab);
    packets->setObjectName(QStringLiteral("groupBox_packets"));
    auto* packetsLayout = new QVBoxLayout(packets);
    packetsLayout->setContentsMargins(6, 2, 6, 4);
    m_packetsText = new QLineEdit(packets);
    m_packetsText->setObjectName(QStringLiteral("lineEdit_packets"));
    m_packetsText->setReadOnly(true);
    m_packetsText->setAutoFillBackground(true);
    packetsLayout->addWidget(m_packetsText);
    page->addWidget(packets);
    page->addStretch(1);
    m_tabs->addTab(tab, QStringLiteral("Event Info"));

    const SettingParams& s = SettingParams::Instance();
    SetLimits(s.m_min_freq, s.m_max_freq);
}

QSize QEventInfo::sizeHint() const
{
    QSize hint = PanelDialog::sizeHint();
    const QMargins outer = layout()->contentsMargins();
    const int frame = 2 * m_scroll->frameWidth();
    // A few pixels to spare, so that rounding never calls up the scroll bar.
    hint.setHeight(m_scroll->widget()->sizeHint().height() + frame + outer.top() + outer.bottom() + 4);
    return hint;
}

void QEventInfo::SetLimits(int minHz, int maxHz)
{
    m_freqBar->setRange(minHz, maxHz);
    m_freqLeft->setText(QString::number(minHz / 1000) + QStringLiteral(" kHz"));
    m_freqRight->setText(QString::number(maxHz / 1000) + QStringLiteral(" kHz"));
}

namespace {

// Sets a gauge's text only when it changes: the refresh sets every gauge 33
// times a second, and setting a line edit's text lays it out anew even when
// the text is the same.
template <class Edit>
void SetText(Edit* edit, const QString& text)
{
    if (edit->text() != text)
        edit->setText(text);
}

// A number truncated to an int, and 0 for what is no number or out of reach.
int Truncated(double v)
{
    if (!std::isfinite(v) || std::fabs(v) > 2e9)
        return 0;
    return static_cast<int>(v);
}

}  // namespace

void QEventInfo::SetFrequency(double kHz)
{
    const int hz = Truncated(kHz * 1000.0);
    SetText(m_freqText, QStringLiteral("%1 Hz").arg(hz));
    // Outside the limits the bar keeps what it showed.
    m_freqBar->setValue(hz);
}

void QEventInfo::SetControlError(double percent)
{
    SetText(m_ceText, QString::asprintf("%.1f%%", percent));
    // Beyond the range the bar stands at its end.
    m_ceBar->setValue(std::clamp(Truncated(percent), m_ceBar->minimum(), m_ceBar->maximum()));
}

void QEventInfo::SetPower(double percent)
{
    SetText(m_powerText, QString::asprintf("%.1f%%", percent));
    m_powerBar->setValue(percent > m_powerBar->maximum() ? 200 : Truncated(percent));
}

void QEventInfo::SetPackets(int64_t counters)
{
    const auto errors = static_cast<int32_t>(static_cast<uint64_t>(counters) >> 32);
    const auto total = static_cast<int32_t>(static_cast<uint64_t>(counters) & 0xFFFFFFFFu);
    SetText(m_packetsText, QString::asprintf("%d/%d", errors, total));
}

void QEventInfo::Clear()
{
    SetControlError(0.0);
    SetFrequency(0.0);
    SetPower(0.0);
    SetPackets(0);
}

bool QEventInfo::FocusTest()
{
    bool focus = hasFocus();
    for (QWidget* w : findChildren<QWidget*>())
        focus = focus || w->hasFocus();
    QFont font = m_tabs->tabBar()->font();
    font.setWeight(focus ? 75 : 50);
    m_tabs->tabBar()->setFont(font);
    return focus;
}
