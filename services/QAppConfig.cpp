#include "services/QAppConfig.h"

#include "events/ui/UserSeams.h"
#include "services/AppSettings.h"
#include "services/SettingParams.h"
#include "views/PropertyTree.h"

#include <QGridLayout>
#include <QPushButton>
#include <QSpacerItem>
#include <QStandardItem>
#include <QTreeView>

#include <algorithm>
#include <vector>

namespace {

using Row = QAppConfig::Row;

constexpr Row SwitchRow(const char* group, const char* name, int rank, int32_t SettingParams::*field)
{
    return {group, name, rank, Row::Switch, field, nullptr, nullptr};
}
constexpr Row NumberRow(const char* group, const char* name, int rank, int32_t SettingParams::*field)
{
    return {group, name, rank, Row::Number, field, nullptr, nullptr};
}
constexpr Row TextRow(const char* group, const char* name, int rank, std::string SettingParams::*field)
{
    return {group, name, rank, Row::Text, nullptr, field, nullptr};
}
constexpr Row FlagRow(const char* group, const char* name, int rank, bool SettingParams::*field)
{
    return {group, name, rank, Row::Flag, nullptr, nullptr, field};
}

// The tree top to bottom; the groups appear in the order of their first row.
// The third number is the row's place in the order of the writes at Save.
const Row kRows[] = {
    SwitchRow("ASK", "Signal Reverse", 3, &SettingParams::m_ask_signal_reverse),
    SwitchRow("ASK", "Capture Data", 4, &SettingParams::m_ask_capture_data),
    NumberRow("ASK", "Trigger Samples", 6, &SettingParams::m_ask_trigger_samples),
    NumberRow("ASK", "DAC Value", 7, &SettingParams::m_dac_value),
    SwitchRow("ASK", "Second Reader", 11, &SettingParams::m_ask_second_reader),
    SwitchRow("FSK", "Capture Data", 5, &SettingParams::m_fsk_capture_data),
    SwitchRow("FSK", "Second Reader", 12, &SettingParams::m_fsk_second_reader),
    NumberRow("Frequency", "Min Frequency (Hz)", 1, &SettingParams::m_min_freq),
    NumberRow("Frequency", "Max Frequency (Hz)", 2, &SettingParams::m_max_freq),
    TextRow("Save Path", "Data Save Path", 8, &SettingParams::savePath),
    NumberRow("Common", "Window Limit Time (min)", 9, &SettingParams::m_window_time),
    FlagRow("Common", "Default Polarity", 10, &SettingParams::m_Polarity),
    // The timing checker's limits.
    NumberRow("Timing", "Ping to First Packet (ms)", 13, &SettingParams::m_timing_ping_first_ms),
    NumberRow("Timing", "Config Packet Gap (ms)", 14, &SettingParams::m_timing_config_gap_ms),
    NumberRow("Timing", "Config Packet Length (ms)", 15, &SettingParams::m_timing_config_length_ms),
    NumberRow("Timing", "Control Error Interval (ms)", 16, &SettingParams::m_timing_ce_interval_ms),
    NumberRow("Timing", "Control Error Timeout (ms)", 17, &SettingParams::m_timing_ce_timeout_ms),
    NumberRow("Timing", "Hold-off Min (ms)", 18, &SettingParams::m_timing_holdoff_min_ms),
    NumberRow("Timing", "Hold-off Max (ms)", 19, &SettingParams::m_timing_holdoff_max_ms),
    NumberRow("Timing", "ASK Bit Rate (Hz)", 20, &SettingParams::m_timing_bit_rate_hz),
    NumberRow("Timing", "ASK Bit Rate Tolerance (%)", 21, &SettingParams::m_timing_bit_rate_tolerance_pct),
    NumberRow("Timing", "Preamble Min (bits)", 22, &SettingParams::m_timing_preamble_min),
    NumberRow("Timing", "Preamble Max (bits)", 23, &SettingParams::m_timing_preamble_max),
    NumberRow("Timing", "FSK Response Window (ms)", 24, &SettingParams::m_timing_response_ms),
    NumberRow("Timing", "Terminate after EPT (ms)", 25, &SettingParams::m_timing_terminate_ms),
};

// The FSK switch circle has no row and no field; should a row of this name
// be added to the group "FSK", the third check reads it.
const char* const kSwitchCircleGroup = "FSK";
const char* const kSwitchCircleRow = "Switch Circle";

QVariant FieldValue(const Row& row, const SettingParams& s)
{
    switch (row.kind) {
    case Row::Switch:
        return QVariant(s.*row.number != 0);
    case Row::Number:
        return QVariant(int(s.*row.number));
    case Row::Text:
        return QVariant(QString::fromStdString(s.*row.text));
    case Row::Flag:
        return QVariant(s.*row.flag);
    }
    return QVariant();
}

void WriteField(const Row& row, const QVariant& value, SettingParams& s)
{
    switch (row.kind) {
    case Row::Switch:
        s.*row.number = value.toBool() ? 1 : 0;
        break;
    case Row::Number:
        s.*row.number = value.toInt();
        break;
    case Row::Text:
        s.*row.text = value.toString().toUtf8().toStdString();
        break;
    case Row::Flag:
        s.*row.flag = value.toBool();
        break;
    }
}

}  // namespace

QAppConfig::QAppConfig(QWidget* parent) : QWidget(parent)
{
    // The first use of the settings object: it loads the settings file.
    AppSettings::Instance();
    setObjectName(QStringLiteral("QAppConfig"));
    setWindowTitle(QStringLiteral("Device Configuration"));
    resize(396, 540);
    auto* grid = new QGridLayout(this);
    grid->setSpacing(6);
    grid->setContentsMargins(11, 11, 11, 11);
    m_tree = new PropertyTree(this);
    m_tree->layout()->setContentsMargins(0, 0, 0, 0);
    grid->addWidget(m_tree, 0, 0, 1, 4);
    grid->addItem(new QSpacerItem(40, 20, QSizePolicy::Expanding, QSizePolicy::Minimum), 1, 0);
    m_save = new QPushButton(QStringLiteral("Save"), this);
    m_save->setObjectName(QStringLiteral("pushButton_save"));
    grid->addWidget(m_save, 1, 1);
    m_close = new QPushButton(QStringLiteral("Close"), this);
    m_close->setObjectName(QStringLiteral("pushButton_cancle"));
    grid->addWidget(m_close, 1, 2);
    grid->addItem(new QSpacerItem(40, 20, QSizePolicy::Expanding, QSizePolicy::Minimum), 1, 3);

    const SettingParams& s = SettingParams::Instance();
    for (const Row& row : kRows) {
        const QString title = QLatin1String(row.group);
        QStandardItem* group = m_tree->Group(title);
        if (!group)
            group = m_tree->AddGroup(title);
        m_tree->AddEditableRow(group, QLatin1String(row.name), FieldValue(row, s));
    }
    m_tree->ResizeToContents();

    connect(this, &QAppConfig::signals_UpdateUI, this, &QAppConfig::slot_UpdateUI);
    QMetaObject::connectSlotsByName(this);
}

void QAppConfig::slot_UpdateUI()
{
    const SettingParams& s = SettingParams::Instance();
    for (const Row& row : kRows)
        m_tree->SetValue(QLatin1String(row.group), QLatin1String(row.name), FieldValue(row, s));
}

void QAppConfig::on_pushButton_cancle_clicked()
{
    hide();
}

void QAppConfig::on_pushButton_save_clicked()
{
    auto refuse = [this](const char* text) {
        ShowUserMessage(this, MessageKind::Warning, QStringLiteral("Warning"), QLatin1String(text), true);
    };
    auto value = [this](const char* group, const char* name) {
        return m_tree->Value(QLatin1String(group), QLatin1String(name));
    };
    if (!(value("Frequency", "Min Frequency (Hz)").toInt() < value("Frequency", "Max Frequency (Hz)").toInt())) {
        refuse("Frequency property is Invalid.");
        return;
    }
    const int windowTime = value("Common", "Window Limit Time (min)").toInt();
    if (windowTime < 15 || windowTime > 60) {
        refuse("m_window_time property is 15 - 60 minute.");
        return;
    }
    const QVariant circle = value(kSwitchCircleGroup, kSwitchCircleRow);
    if (circle.isValid() && circle.toInt() != 512 && circle.toInt() != 128) {
        refuse("Fsk switch circle can only be 512 or 128.");
        return;
    }

    std::vector<const Row*> order;
    for (const Row& row : kRows)
        order.push_back(&row);
    std::sort(order.begin(), order.end(), [](const Row* a, const Row* b) { return a->writeRank < b->writeRank; });
    SettingParams& s = SettingParams::Instance();
    for (const Row* row : order)
        WriteField(*row, value(row->group, row->name), s);
    hide();
    AppSettings::Instance().save();
    emit signals_QAppSave();
}
