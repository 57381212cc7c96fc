#include "views/SampleGui.h"

#include "services/AppSettings.h"
#include "services/SettingParams.h"
#include "views/QwtChart.h"
#include "views/WaveView.h"

#include <QCheckBox>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSlider>
#include <QSpacerItem>
#include <QVBoxLayout>
#include <QVector>

#include <cstdio>

namespace {

// Directions of an event: 1 transmitter to receiver (FSK), 2 receiver to
// transmitter (ASK).
constexpr int kDirectionFsk = 1;
constexpr int kDirectionAsk = 2;

QString Number(const char* format, int value)
{
    char text[32];
    std::snprintf(text, sizeof text, format, value);
    return QString::fromLatin1(text);
}

}  // namespace

SampleGui::SampleGui(int kind, QWidget* parent) : QMainWindow(parent), m_kind(kind)
{
    SetupForm();
    m_chart = new QwtChart(kind, 500, this);
    m_layout->insertWidget(1, m_chart, 1);
    m_wave = new WaveView(this);
    m_layout->insertWidget(2, m_wave, 1);
    m_wave->hide();
    m_paused = false;
    m_freeRun = true;
    connect(this, &SampleGui::signal_UpdateUI, this, &SampleGui::slot_UpdateUI);

    if (m_kind == 6) {
        setWindowTitle(QStringLiteral("FSK Wave"));
        for (QWidget* w : {static_cast<QWidget*>(m_checkBox), static_cast<QWidget*>(m_checkBoxLock),
                           static_cast<QWidget*>(m_slider), static_cast<QWidget*>(m_labelMin),
                           static_cast<QWidget*>(m_labelMax)})
            w->hide();
        m_spacer->changeSize(40, 20, QSizePolicy::Expanding, QSizePolicy::Minimum);
        m_layout->invalidate();
    } else if (m_kind == 5) {
        setWindowTitle(QStringLiteral("ASK Wave"));
        emit signal_UpdateUI();
        const SettingParams& s = SettingParams::Instance();
        m_labelMin->setText(Number("%d", s.m_dac_min));
        m_labelMax->setText(Number("%d", s.m_dac_max));
        m_slider->setRange(s.m_dac_min, s.m_dac_max);
        m_slider->setEnabled(false);
        m_slider->setValue(s.m_dac_value);
        m_checkBoxLock->setChecked(s.m_dac_locked != 0);
        if (s.m_dac_locked != 0)
            m_checkBox->setEnabled(false);
    }
}

SampleGui::~SampleGui() = default;

void SampleGui::SetupForm()
{
    setObjectName(QStringLiteral("SampleGuiClass"));
    setWindowTitle(QStringLiteral("Wave"));
    resize(846, 542);
    auto* central = new QWidget(this);
    central->setObjectName(QStringLiteral("centralWidget"));
    m_layout = new QVBoxLayout(central);
    m_layout->setSpacing(6);
    m_layout->setContentsMargins(11, 11, 11, 11);

    auto* controls = new QHBoxLayout();
    controls->setSpacing(6);
    m_checkBox = new QCheckBox(QStringLiteral("Manual DAC"), central);
    m_checkBox->setObjectName(QStringLiteral("checkBox"));
    m_checkBoxLock = new QCheckBox(QStringLiteral("Lock"), central);
    m_checkBoxLock->setObjectName(QStringLiteral("checkBox_Lock"));
    m_labelMin = new QLabel(QStringLiteral("Min"), central);
    m_labelMin->setObjectName(QStringLiteral("label_dac_min"));
    m_slider = new QSlider(Qt::Horizontal, central);
    m_slider->setObjectName(QStringLiteral("horizontalSlider"));
    m_labelMax = new QLabel(QStringLiteral("Max"), central);
    m_labelMax->setObjectName(QStringLiteral("label_dac_max"));
    m_spacer = new QSpacerItem(20, 20, QSizePolicy::Expanding, QSizePolicy::Minimum);
    m_autoTrigger = new QCheckBox(QStringLiteral("Auto Trigger"), central);
    m_autoTrigger->setObjectName(QStringLiteral("checkBox_autoTrigger"));
    m_autoTrigger->setChecked(false);
    m_pause = new QPushButton(QStringLiteral("Pause"), central);
    m_pause->setObjectName(QStringLiteral("pushButton"));
    controls->addWidget(m_checkBox);
    controls->addWidget(m_checkBoxLock);
    controls->addWidget(m_labelMin);
    controls->addWidget(m_slider, 1);
    controls->addWidget(m_labelMax);
    controls->addItem(m_spacer);
    controls->addWidget(m_autoTrigger);
    m_follow = new QPushButton(QStringLiteral("Follow"), central);
    m_follow->setObjectName(QStringLiteral("pushButton_follow"));
    m_follow->setToolTip(QStringLiteral("Leave the selected packet and follow the newest one"));
    m_follow->setEnabled(false);
    connect(m_follow, &QPushButton::clicked, this, &SampleGui::Follow);
    controls->addWidget(m_follow);
    controls->addWidget(m_pause);
    m_layout->addLayout(controls);

    m_groupBox = new QGroupBox(QStringLiteral("Packet Info"), central);
    m_groupBox->setObjectName(QStringLiteral("groupBox"));
    auto* grid = new QGridLayout(m_groupBox);
    grid->setSpacing(6);
    grid->setContentsMargins(11, 11, 11, 11);
    struct Field {
        const char* label;
        const char* labelText;
        const char* edit;
        QLineEdit** target;
    };
    const Field fields[] = {
        {"label", "Summary", "lineEdit_summary", &m_summary},
        {"label_2", "Type", "lineEdit_typestring", &m_typeString},
        {"label_3", "Log Data", "lineEdit_logdata", &m_logData},
        {"label_4", "Packet Data", "lineEdit_packetdata", &m_packetData},
    };
    int row = 0;
    for (const Field& f : fields) {
        auto* label = new QLabel(QLatin1String(f.labelText), m_groupBox);
        label->setObjectName(QLatin1String(f.label));
        auto* edit = new QLineEdit(m_groupBox);
        edit->setObjectName(QLatin1String(f.edit));
        grid->addWidget(label, row, 0);
        grid->addWidget(edit, row, 1);
        *f.target = edit;
        ++row;
    }
    m_layout->addWidget(m_groupBox);
    setCentralWidget(central);

    connect(m_pause, &QPushButton::clicked, this, [this] { PauseClick(); });
    connect(m_autoTrigger, &QCheckBox::clicked, this, [this] { TriggerCheck(); });
    connect(m_checkBox, &QCheckBox::clicked, this, &SampleGui::check_change);
    connect(m_checkBoxLock, &QCheckBox::clicked, this, &SampleGui::dac_locked);
    connect(m_slider, &QSlider::valueChanged, this, &SampleGui::dac_value_change);
}

void SampleGui::PauseClick()
{
    if (m_paused) {
        m_paused = false;
        m_pause->setText(QStringLiteral("Pause"));
    } else {
        m_paused = true;
        m_pause->setText(QStringLiteral("Run"));
    }
}

void SampleGui::TriggerCheck()
{
    if (m_autoTrigger->isChecked()) {
        m_freeRun = false;
        m_chart->SetXRange(0, m_kind == 5 ? SettingParams::Instance().m_ask_trigger_samples : 2000);
    } else {
        m_freeRun = true;
        m_chart->SetXRange(0, 500);
        m_samples.clear();
        for (QLineEdit* e : {m_summary, m_typeString, m_logData, m_packetData})
            e->clear();
        m_pinned = false;
        m_follow->setEnabled(false);
        ShowChart();
    }
}

void SampleGui::slot_UpdateUI()
{
}

void SampleGui::dac_value_change(int value)
{
    emit signal_dac_change(value);
}

void SampleGui::check_change(bool checked)
{
    m_slider->setEnabled(checked);
}

void SampleGui::dac_locked(bool)
{
    SettingParams& s = SettingParams::Instance();
    s.m_dac_locked = m_checkBoxLock->isChecked() ? 1 : 0;
    s.m_dac_manual = m_checkBox->isChecked() ? 1 : 0;
    AppSettings::Instance().save();
    if (m_checkBoxLock->isChecked()) {
        m_checkBox->setEnabled(false);
        m_slider->setEnabled(false);
    } else {
        m_checkBox->setEnabled(true);
        m_slider->setEnabled(m_checkBox->isChecked());
    }
}

bool SampleGui::AutoDacAllowed() const
{
    return !m_checkBox->isChecked();
}

void SampleGui::SetSliderValue(int value)
{
    m_slider->setValue(value);
}

void SampleGui::AdjustYRange(int low, int high)
{
    m_chart->SetYRangeLazy(low, high);
}

void SampleGui::ShowSamples(const std::list<uint16_t>& samples)
{
    if (m_paused || samples.empty() || m_pinned)
        return;
    QVector<double> values;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        values.reserve(static_cast<int>(samples.size()));
        for (uint16_t v : samples)
            values.append(static_cast<double>(v));
    }
    if (!values.isEmpty())
        m_chart->AppendRoll(values);
}

void SampleGui::ShowPackets(const std::vector<MsgInfoPtr>& events)
{
    ++m_packetLists;
    if (m_paused || events.empty())
        return;
    const MsgInfoPtr& last = events.back();
    if (!last)
        return;
    const int mine = m_kind == 6 ? kDirectionFsk : kDirectionAsk;
    if (last->direction != mine)
        return;
    if (m_pinned)
        return;  // the user's packet stays until "Follow"
    if (last->capture && !last->capture->samples.empty()) {
        QVector<double> values;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            const std::vector<int32_t>& s = last->capture->samples;
            values.reserve(static_cast<int>(s.size()));
            for (int32_t v : s)
                values.append(static_cast<double>(v));
        }
        m_chart->SetPointsByIndex(values);
        ShowWave(*last);
    }
    ShowFields(*last);
}

void SampleGui::ShowFields(const MsgInfo& event)
{
    m_summary->setText(QString::fromStdString(event.common.Summary));
    m_typeString->setText(QString::fromStdString(event.common.typeString));
    m_logData->setText(QString::fromStdString(event.common.logData));
    m_packetData->setText(QString::fromStdString(event.packet.PacketData));
}

void SampleGui::ShowWave(const MsgInfo& event)
{
    m_wave->SetEvent(event);
    if (m_wave->isHidden()) {
        m_chart->hide();
        m_wave->show();
    }
}

void SampleGui::ShowChart()
{
    if (m_chart->isHidden()) {
        m_wave->hide();
        m_chart->show();
    }
}

bool SampleGui::ShowSelected(const MsgInfo& event)
{
    if (!event.capture || event.capture->samples.empty() || event.packet.PacketData.empty())
        return false;
    if (analysis::IsAskEvent(event) != (m_kind == 5))
        return false;
    ShowWave(event);
    ShowFields(event);
    m_pinned = true;
    m_follow->setEnabled(true);
    return true;
}

void SampleGui::Follow()
{
    m_pinned = false;
    m_follow->setEnabled(false);
    if (m_freeRun)
        ShowChart();
}
