// The event log model: what the event window does to each batch of events,
// without the widgets. It numbers the events, writes the session's autosave
// (.sid records and .log lines), classifies the power phase, folds events into
// phase groups and sub-groups with their titles and counts, and keeps the flat
// log. The window shows this model and adds what is visual.
#pragma once

#include "events/MsgInfo.h"
#include "events/RecordStore.h"

#include <QStandardItem>
#include <QStandardItemModel>
#include <QSet>
#include <QStringList>

#include <QPersistentModelIndex>

#include <cstdio>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
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

// The value and frequency of one control error, as a sub-group's title
// tells its lowest and highest.
struct ControlErrorMark {
    float value = 0.0f;
    int32_t freq = 0;
};

// An item of the event tree. A long session holds hundreds of thousands of
// them, so an event item keeps only what it shows and where its event lies:
// its text (as UTF-8, answered as the display role), its type for the icon,
// its number and place in the session files, and the few fields of the event
// the .sid does not keep. Its whole event is held only while the event is
// among the newest or selected; EventLogModel::Select reads it back from the
// .sid otherwise. Groups, markers and notices always hold their record.
// What a closed group keeps of its record: all a group's record holds.
struct GroupDigest {
    EventGroup eventG;
    TimingsGroup timings;
    int32_t direction = 0;
};

// The .sid offset of an event whose record is not there whole (offsets are
// kept in 48 bits).
constexpr uint64_t kNotInSid = (static_cast<uint64_t>(1) << 48) - 1;

class QStandardItemEx : public QStandardItem {
public:
    QStandardItemEx(const QString& text, StandardItemMode mode);
    // Gives the item its record (and the type its icon is chosen by).
    void SetInfo(const MsgInfo& e);
    QVariant data(int role = Qt::UserRole + 1) const override;
    void setData(const QVariant& value, int role = Qt::UserRole + 1) override;
    // An event item's text, shared with the items that show the same one.
    void SetCompactText(const QByteArray& text) { m_text = text; }

    // Packed into 72 bytes: a long session has hundreds of thousands.
    StandardItemMode mode : 8;
    // packet.Status: 0 empty, 1 "NoError", 2 "Error" (an event with any
    // other status keeps its whole event).
    uint8_t status = 0;
    int8_t direction = 0;   // the event's direction (one outside keeps its whole event)
    bool isGroup : 1;       // a phase group or a sub-group
    bool m_compact : 1;     // the text is m_text
    int32_t type = 0;       // the record's type, kept when the record is not
    std::unique_ptr<MsgInfo> info;        // the record shown in the property tree, or none
    std::unique_ptr<GroupDigest> digest;  // a closed group's record, while info is none
    // Where an event item's event lies: its session (an index into the
    // model's sessions, -1 for none) and the offset of its .sid record; its
    // capture record's number in that session's record file (0 for none).
    int64_t session : 16;
    uint64_t sidOffset : 48;
    int32_t number = 0;
    uint32_t recordNumber = 0;
    int64_t enqueueTick = 0;  // not kept by the .sid

private:
    // An event item's text; other items keep theirs as QStandardItem does.
    QByteArray m_text;
};

// A line of the log as the model writes it: "Tx ", "Rx " or three blanks by
// the direction, then "[number] " and the text.
QString EventLogLine(int32_t number, const QString& text, int direction);

// What tells an event's record from another's when a .sid is read back: the
// fields the .sid keeps exactly (type, texts, frame bytes, time stamps). A
// record file whose records no longer line up with its .sid (a record of the
// .sid lost) then gives the events no wave rather than another's. It is the
// tag a record is stored under in the .rec beside the .sid.
uint32_t EventTag(const MsgInfo& e);

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
    // Closes the autosave streams (the .log's last lines written first).
    void CloseStreams();

    // What the tree holds: its items and the capture records (samples and
    // pulses for the wave view) behind the events they keep. A record shared
    // by several events or items is counted once; its bytes are what its
    // vectors have reserved.
    struct Footprint {
        size_t items = 0;
        size_t events = 0;  // items holding their whole event in memory
        size_t records = 0;
        size_t recordBytes = 0;
    };
    Footprint TreeFootprint() const;

    // Capture records on disk. While a session's autosave is open, each
    // event's capture record is appended to the record file beside the .sid
    // under the event's place in the .sid, and the tree keeps in memory only
    // the records of the newest events (LiveRecords of them), of the item
    // selected last, and a few loaded back; an item keeps where its record
    // lies (its place in the .sid and which session file).
    static constexpr size_t kLiveRecords = 256;
    static constexpr size_t kCachedRecords = 16;
    void SetLiveRecords(size_t n) { m_liveRecords = n; }
    // Closed groups keep a digest of their record (on by default; off, they
    // keep it whole: the reference the digest is checked against).
    void SetCompactGroups(bool on) { m_compactGroups = on; }
    size_t LiveRecords() const { return m_liveRecords; }
    // The event of an item as it is shown and selected: an event item whose
    // event left memory reads it back from its session's .sid, exactly as it
    // was, and gets its capture record back from the record file (null if it
    // could not be stored). The item becomes the one selected, whose event
    // stays in memory until another is selected.
    MsgInfo& Select(QStandardItemEx* item);
    // The record file of the running session; null before the first Start
    // or when the .sid did not open.
    const RecordStore* Records() const { return m_records.get(); }
    // Loads the record of an item from its session's record file (through
    // the cache), without selecting it; null if it has none.
    TriggerDataPtr LoadRecord(const QStandardItemEx* item);
    // Reads the event of an event item back from its session's .sid, numbered
    // and completed as it was shown; null if the item has none there or the
    // .sid cannot be read.
    MsgInfoPtr LoadEvent(const QStandardItemEx* item) const;
    // Records loaded back from files and still cached.
    size_t CachedRecords() const { return m_cache.size(); }
    // The records of the next events that come without one are taken from
    // the record file beside this .sid, by the number a read of the .sid gave
    // each event (its id): how an opened session gets its waves back. Ends
    // with the Stop marker. A file that is missing or not a record file
    // leaves the events as they are.
    void SetRecordSource(const std::string& sidPath);
    bool HasRecordSource() const { return m_source != nullptr; }

    // Shows a saved session where it lies instead of saving it again: the
    // next Start marker opens no autosave files, and the session's files are
    // then the opened ones. The events that follow (as OpenSessionFile read
    // them, numbered from 1; offsets[i] is where event i + 1 begins in the
    // .sid) are read back from that .sid when they left memory and get their
    // capture records from the record file beside it when selected. Nothing
    // is written. Ends with the Stop marker.
    void ShowInPlace(const std::string& sidPath, std::vector<uint64_t> offsets);
    // Between the Start and the Stop marker of a session shown in place.
    bool ShowingInPlace() const { return m_inPlace; }
    // The next Start marker opens its autosave under these names (the .sid,
    // the .log, and the record file beside the .sid) instead of names made of
    // the settings' folders and the time. Once.
    void SetSessionFiles(const std::string& sidPath, const std::string& logPath);

    // Why an event item shows no wave though its event had a capture record:
    // the record is damaged in the record file, or could not be written to
    // it. Empty when the item has its record or never had one.
    QString RecordNote(const QStandardItemEx* item) const;
    // The same for the item selected last.
    QString SelectedRecordNote() const;

    // The device's record as the markers copy it; empty fields until set.
    std::function<DeviceGroup()> deviceGroup;
    // Told when an event opens a phase group: the phase's name and the event
    // (whose log line, if it has one, is already written).
    std::function<void(const QString& phase, const MsgInfo& event)> groupOpened;
    // Told for every event of a batch once the model has taken it: the event
    // (numbered) and the power phase it was classified into (1 to 5). A
    // violation or a contract, which stand outside the phase groups, is told
    // with the phase current when it came (before a violation resets it).
    std::function<void(const MsgInfo& event, int phase)> eventAdded;

private:
    void OpenStreams();
    void OpenInPlace();
    // An event of a session shown in place: where its record lies in the
    // opened .sid and the number of its capture record in the record file.
    void PlaceInSession(const MsgInfo& e);
    void LogLine(int32_t number, const QString& text, int direction);
    // Writes the .log lines made since the last push, whole, in one write.
    // At the end of every batch and marker and before the streams close.
    void PushLogLines();
    void ViolationItem(const MsgInfo& event);
    void ContractItem(const MsgInfo& event);
    void PhaseStep(const MsgInfo& event);
    void OpenGroup(const MsgInfo& event);
    QStandardItemEx* AddToTree(const MsgInfoPtr& event);
    void RollUp(QStandardItemEx* item, const MsgInfo& event);
    void RetitlePhase();
    void RetitleSubGroup();
    void RetitleRoot();
    void CloseGroups();
    void Marker(StandardItemMode mode, bool start);
    void StoreRecord(const MsgInfoPtr& e);
    void MarkRecord(QStandardItemEx* item, const MsgInfo& e);
    void Release(QStandardItemEx* item);
    void SetPhaseGroup(QStandardItemEx* group);
    void SetSubGroup(QStandardItemEx* group);
    void Compact(QStandardItemEx* group);
    MsgInfo& Expand(QStandardItemEx* item);
    void WriteSid(const MsgInfo& e);
    // The text of an event item, shared with the items before it that show
    // the same one (most events of a session are control errors that read
    // alike); the pool keeps the last few thousand distinct texts.
    QByteArray Intern(const QString& text);
    static constexpr int kInternedTexts = 4096;
    void ReleaseOldRecords();
    void DropRecord(const QPersistentModelIndex& index);

    QStandardItemModel m_model;
    QString m_rootTitle;
    QStandardItemEx* m_root = nullptr;
    QStandardItemEx* m_phaseGroup = nullptr;
    QStandardItemEx* m_subGroup = nullptr;
    // The control errors of the open sub-group, for its title.
    std::vector<ControlErrorMark> m_subGroupErrors;
    QStringList m_logLines;
    int m_phase = 1;
    int m_calibration = 0;
    std::FILE* m_sid = nullptr;
    std::FILE* m_log = nullptr;
    std::string m_sidPath;
    std::string m_logPath;
    std::string m_logPending;  // whole .log lines not yet written
    int32_t m_nextNumber = 1;
    int64_t m_linesWritten = 0;
    int32_t m_lineLimit = 0;

    // Capture records on disk: the files made by this model (one per Start;
    // older ones stay readable for the items of earlier sessions), the
    // current one, and the place in the .sid of the last record written.
    std::vector<std::shared_ptr<RecordStore>> m_recordFiles;
    std::shared_ptr<RecordStore> m_records;
    uint64_t m_recordNumber = 0;
    // The .sid of each session this model made (index: the item's session;
    // empty once cleared), and the bytes written to the current one.
    std::vector<std::string> m_sidFiles;
    uint64_t m_sidBytes = 0;
    bool m_sidBroken = false;
    // The event being added, the record number it got (0 for none), and
    // where its .sid record begins (-1 when it was not written whole).
    uint64_t m_pendingNumber = 0;
    int64_t m_pendingOffset = -1;
    struct Live {
        QPersistentModelIndex item;
        MsgInfoPtr event;
        bool stored = false;  // its capture record is in the record file
    };
    std::deque<Live> m_live;
    size_t m_liveRecords = kLiveRecords;
    bool m_compactGroups = true;
    QSet<QByteArray> m_texts;
    QPersistentModelIndex m_selected;
    // Loaded-back records, most recent first; keyed by file and number.
    using CacheKey = std::pair<int, uint64_t>;
    std::list<std::pair<CacheKey, TriggerDataPtr>> m_cache;
    std::unique_ptr<RecordStore> m_source;
    // A session shown in place: asked for (until its Start marker), shown
    // (until its Stop marker), its .sid and where each of its records begins.
    bool m_inPlacePending = false;
    bool m_inPlace = false;
    std::string m_inPlaceSid;
    std::vector<uint64_t> m_inPlaceOffsets;
    // Autosave names for the next Start marker (empty: from the settings).
    std::string m_nextSid, m_nextLog;
};
