// The event log model: what the event window does to each batch of events,
// without the widgets. It numbers the events, writes the session's autosave
// (.sid records and .log lines), classifies the power phase, folds events into
// phase groups and sub-groups with their titles and counts, and keeps the flat
// log. The window shows this model and adds what is visual.
#pragma once

#include "events/MsgInfo.h"

#include <QStandardItem>
#include <QStandardItemModel>
#include <QStringList>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

enum StandardItemMode : int32_t {
    kItemEvent = 1,          // a single event; also the "Proprietary" phase
    kItemControlError = 2,   // "Control Error" sub-group
    kItemDigitalPing = 3,    // "Digital Ping" sub-group
    kItemPhase = 4,          // phase group
    kItemRoot = 5,
    kItemStart = 6,          // Start Acquisition marker
    kItemStop = 7,           // Stop Acquisition marker
    kItemNotice = 8,         // violation and contract items
};

class QStandardItemEx : public QStandardItem {
public:
    QStandardItemEx(const QString& text, StandardItemMode mode) : QStandardItem(text), mode(mode) {}
    StandardItemMode mode;
    std::vector<MsgInfoPtr> events;  // a sub-group's events, for its title
    MsgInfo info;
};

class EventLogModel {
public:
    EventLogModel();
    ~EventLogModel();

    void AddEvents(const std::vector<MsgInfoPtr>& events);
    void StartAcquisition(const std::string& text = std::string());
    void StopAcquisition(const std::string& text = std::string());
    void ClearAll();

    // The power phase of an event (1 to 5) given the current phase and the
    // calibration flag; a "Mode 2" received power packet clears the flag.
    int PhaseOf(const MsgInfo& event);

    QStandardItemModel& Model() { return m_model; }
    QStandardItemEx* Root() const { return m_root; }
    QStandardItemEx* PhaseGroup() const { return m_phaseGroup; }
    QStandardItemEx* SubGroup() const { return m_subGroup; }
    const QStringList& LogLines() const { return m_logLines; }
    // Lines written since construction, trimmed ones included.
    int64_t LinesWritten() const { return m_linesWritten; }
    QString LogText() const;
    int CurrentPhase() const { return m_phase; }
    int CalibrationFlag() const { return m_calibration; }
    void SetCalibrationFlag(int flag) { m_calibration = flag; }
    void SetCurrentPhase(int phase) { m_phase = phase; }
    int32_t NextEventNumber() const { return m_nextNumber; }
    int32_t LineLimit() const { return m_lineLimit; }
    const std::string& SidPath() const { return m_sidPath; }
    const std::string& LogPath() const { return m_logPath; }
    // The name a phase group is titled with once it has events ("Proprietary"
    // outside 1 to 5).
    static QString PhaseName(int phase);
    // Closes the autosave streams (and flushes the .log).
    void CloseStreams();

    // What the tree holds: its items and the capture records (samples and
    // pulses for the wave view) behind the events they keep. A record shared
    // by several events or items is counted once; its bytes are what its
    // vectors have reserved.
    struct Footprint {
        size_t items = 0;
        size_t records = 0;
        size_t recordBytes = 0;
    };
    Footprint TreeFootprint() const;

    // The device's record as the markers copy it; empty fields until set.
    std::function<DeviceGroup()> deviceGroup;
    // Told when an event opens a phase group: the phase's name and the event
    // (whose log line, if it has one, is already written).
    std::function<void(const QString& phase, const MsgInfo& event)> groupOpened;

private:
    void OpenStreams();
    void LogLine(int32_t number, const QString& text, int direction);
    void ViolationItem(const MsgInfo& event);
    void ContractItem(const MsgInfo& event);
    void PhaseStep(const MsgInfo& event);
    void OpenGroup(const MsgInfo& event);
    void AddToTree(const MsgInfoPtr& event);
    void RollUp(QStandardItemEx* item, const MsgInfo& event);
    void RetitlePhase();
    void RetitleSubGroup();
    void RetitleRoot();
    void CloseGroups();
    void Marker(StandardItemMode mode, bool start);

    QStandardItemModel m_model;
    QString m_rootTitle;
    QStandardItemEx* m_root = nullptr;
    QStandardItemEx* m_phaseGroup = nullptr;
    QStandardItemEx* m_subGroup = nullptr;
    QStringList m_logLines;
    int m_phase = 1;
    int m_calibration = 0;
    std::FILE* m_sid = nullptr;
    std::FILE* m_log = nullptr;
    std::string m_sidPath;
    std::string m_logPath;
    int32_t m_nextNumber = 1;
    int64_t m_linesWritten = 0;
    int32_t m_lineLimit = 0;
};
