// A wave panel: one raw signal of the link as an oscilloscope shows it, in a
// window of its own. Kind 5 shows the ASK envelope and carries the controls of
// the device's DAC (the slider, "Manual DAC" and "Lock"); kind 6 shows the
// FSK period words. Free-running, it rolls the newest samples of the stream
// by; with AutoTrigger on it shows the samples of the newest decoded packet of
// its direction beside the packet's four text fields. Paused, it takes
// nothing. The main window's refresh hands it what it shows; it never pulls.
//
// A packet's wave (on AutoTrigger, or a packet the user selected in the event
// tree, live or in an opened session) is shown in the wave view in place of
// the rolling chart: the record against time in ms, with its decoded rows,
// zoomed and panned with the mouse. A selected packet stays until the user
// clicks "Follow" (or unchecks AutoTrigger): live, the view otherwise follows
// the newest packet.
#pragma once

#include "events/MsgInfo.h"

#include <QMainWindow>

#include <cstdint>
#include <list>
#include <mutex>
#include <vector>

class QCheckBox;
class QGroupBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QSlider;
class QSpacerItem;
class QVBoxLayout;
class QwtChart;
class WaveView;

class SampleGui : public QMainWindow {
    Q_OBJECT
public:
    // kind: 5 (ASK, with the DAC controls) or 6 (FSK).
    explicit SampleGui(int kind, QWidget* parent = nullptr);
    ~SampleGui() override;

    // AutoTrigger: the newest entry of the batch, if it is of this panel's
    // direction (2, receiver to transmitter, for kind 5; 1 for kind 6), is
    // shown: its capture record's samples as the wave, its texts in the
    // fields. Anything else leaves the panel as it is.
    void ShowPackets(const std::vector<MsgInfoPtr>& events);
    // A packet the user selected: shown if it is of this panel's direction
    // and has a capture record (loaded back from the session's record file
    // if it had left memory); the view then stays on it. False if it is not
    // this panel's.
    bool ShowSelected(const MsgInfo& event);
    // Back to following the newest packet (the "Follow" button).
    void Follow();
    bool Pinned() const { return m_pinned; }
    WaveView* Wave() const { return m_wave; }
    // Free-run: the stream's newest samples, rolled onto the wave.
    void ShowSamples(const std::list<uint16_t>& samples);
    // The vertical range, taken only when an end moves by 101 or more.
    void AdjustYRange(int low, int high);
    // Moves the slider (which sends the value to the device through the
    // slider's own path); the slider keeps it within its range.
    void SetSliderValue(int value);
    // The automatic DAC level may change the value: "Manual DAC" is off.
    bool AutoDacAllowed() const;

    int Kind() const { return m_kind; }
    // Event lists handed to ShowPackets so far.
    int PacketLists() const { return m_packetLists; }
    bool Paused() const { return m_paused; }
    bool FreeRun() const { return m_freeRun; }
    QwtChart* Chart() const { return m_chart; }
    QSlider* Slider() const { return m_slider; }
    QCheckBox* ManualBox() const { return m_checkBox; }
    QCheckBox* LockBox() const { return m_checkBoxLock; }

signals:
    void signal_UpdateUI();
    void signal_dac_change(int value);

public slots:
    void PauseClick();
    void TriggerCheck();
    void slot_UpdateUI();
    void dac_value_change(int value);
    void check_change(bool checked);
    void dac_locked(bool locked);

private:
    void SetupForm();
    void ShowWave(const MsgInfo& event);
    void ShowFields(const MsgInfo& event);
    void ShowChart();

    QwtChart* m_chart = nullptr;
    WaveView* m_wave = nullptr;
    QPushButton* m_follow = nullptr;
    bool m_pinned = false;
    int32_t m_kind = 5;
    bool m_paused = false;
    int m_packetLists = 0;
    bool m_freeRun = true;
    std::list<uint16_t> m_samples;  // cleared only
    std::mutex m_mutex;             // held while samples are copied

    QVBoxLayout* m_layout = nullptr;
    QCheckBox* m_checkBox = nullptr;
    QCheckBox* m_checkBoxLock = nullptr;
    QLabel* m_labelMin = nullptr;
    QSlider* m_slider = nullptr;
    QLabel* m_labelMax = nullptr;
    QSpacerItem* m_spacer = nullptr;
    QCheckBox* m_autoTrigger = nullptr;
    QPushButton* m_pause = nullptr;
    QGroupBox* m_groupBox = nullptr;
    QLineEdit* m_summary = nullptr;
    QLineEdit* m_typeString = nullptr;
    QLineEdit* m_logData = nullptr;
    QLineEdit* m_packetData = nullptr;
};
