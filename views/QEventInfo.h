// The gauges: operating frequency, control error, received power and the
// packet report, as the refresh last gave them.
#pragma once

#include "events/ui/PanelDialog.h"

#include <cstdint>

class QLabel;
class QLineEdit;
class QProgressBar;
class QTabWidget;

class QEventInfo : public PanelDialog {
    Q_OBJECT
public:
    explicit QEventInfo(QWidget* parent = nullptr);

    // The frequency gauge's range, in Hz; the end labels follow in whole kHz.
    void SetLimits(int minHz, int maxHz);
    void SetFrequency(double kHz);
    void SetControlError(double percent);
    void SetPower(double percent);
    // Errors in the high 32 bits, the total in the low 32 bits.
    void SetPackets(int64_t counters);
    void Clear();
    // True when the dialog or a widget of its form has the focus; the tab's
    // title turns bold then, normal otherwise.
    bool FocusTest();
    // As tall as the four gauges with their tab, so that a splitter that
    // gives the gauges their preferred height shows all of them unscrolled.
    QSize sizeHint() const override;

    QLineEdit* FrequencyText() const { return m_freqText; }
    QProgressBar* FrequencyBar() const { return m_freqBar; }
    QLabel* FrequencyLeft() const { return m_freqLeft; }
    QLabel* FrequencyRight() const { return m_freqRight; }
    QLineEdit* ControlErrorText() const { return m_ceText; }
    QProgressBar* ControlErrorBar() const { return m_ceBar; }
    QLineEdit* PowerText() const { return m_powerText; }
    QProgressBar* PowerBar() const { return m_powerBar; }
    QLineEdit* PacketsText() const { return m_packetsText; }
    QTabWidget* Tabs() const { return m_tabs; }

private:
    class QScrollArea* m_scroll = nullptr;
    QTabWidget* m_tabs = nullptr;
    QLineEdit* m_freqText = nullptr;
    QProgressBar* m_freqBar = nullptr;
    QLabel* m_freqLeft = nullptr;
    QLabel* m_freqRight = nullptr;
    QLineEdit* m_ceText = nullptr;
    QProgressBar* m_ceBar = nullptr;
    QLineEdit* m_powerText = nullptr;
    QProgressBar* m_powerBar = nullptr;
    QLineEdit* m_packetsText = nullptr;
};
