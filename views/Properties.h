// The fields of the event selected in the event tree, as groups in a property
// tree. Which groups appear depends on the kind of item selected.
#pragma once

#include "analysis/Dissect.h"
#include "analysis/TimingChecker.h"
#include "events/EventLogModel.h"

#include <QWidget>

#include <vector>

class PropertyTree;
class QSplitter;
class QTableWidget;
class QTreeWidget;
class QTreeWidgetItem;

class Properties : public QWidget {
    Q_OBJECT
public:
    explicit Properties(QWidget* parent = nullptr);

    // Empties the tree, then adds the groups of the item's kind, each filled
    // from the event: single event: common, packet, bit timing; a group or a
    // phase: event, timing; the root: device, event, timing; a marker:
    // common, device, time; a violation or contract: common, bit timing; a
    // "Digital Ping" group or any other kind: none.
    void Fill(const MsgInfo& info, int mode);
    // Why the event filled last shows no wave (its capture record damaged
    // in the record file, or never stored), as a "Capture Record" group
    // after the others; nothing for an empty note.
    void ShowRecordNote(const QString& note);

    // The timing checker whose judgement of a packet the "Timing" group of a
    // single event shows (the gap before it, its duration, bit rate and
    // preamble, each rule it was judged by and the result); none: no group.
    void SetTimingChecker(const analysis::TimingChecker* checker) { m_timing = checker; }

    PropertyTree* Tree() const { return m_tree; }
    // A packet's decoded fields (name, value, unit, bits) and its bytes in
    // hex, sixteen a row, below the properties; shown for an event with
    // fields. Selecting a field highlights its bytes; selecting a byte
    // selects the deepest field that takes it.
    QTreeWidget* FieldsView() const { return m_fields; }
    QTableWidget* BytesView() const { return m_bytes; }
    const std::vector<analysis::DissectedField>& Fields() const { return m_dissected; }
    // The frame bytes highlighted (selected in the bytes pane), in order.
    std::vector<int> SelectedBytes() const;
    // Selects frame byte `index` in the bytes pane, and so its field (a byte
    // clicked in a packet's wave).
    void SelectByte(int index);
    static constexpr int kBytesPerRow = 16;
    // Whether the tree or the widget has the focus.
    bool FocusTest() const;

signals:
    // A field was selected: its frame bytes (count 0 for a field without
    // bytes), for the packet's wave to mark them.
    void fieldBytesSelected(int first, int count);

private:
    void FillDissection(const MsgInfo& info, int mode);
    void FieldSelected();
    void BytesSelected();
    const analysis::DissectedField* FieldOf(const QTreeWidgetItem* item) const;

    void AddTimingGroup(const MsgInfo& info);
    const analysis::TimingChecker* m_timing = nullptr;
    PropertyTree* m_tree = nullptr;
    QSplitter* m_splitter = nullptr;
    QTreeWidget* m_fields = nullptr;
    QTableWidget* m_bytes = nullptr;
    std::vector<analysis::DissectedField> m_dissected;
    bool m_syncing = false;
};
