// The fields of the event selected in the event tree, as groups in a property
// tree. Which groups appear depends on the kind of item selected.
#pragma once

#include "events/EventLogModel.h"

#include <QWidget>

class PropertyTree;

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

    PropertyTree* Tree() const { return m_tree; }
    // Whether the tree or the widget has the focus.
    bool FocusTest() const;

private:
    PropertyTree* m_tree = nullptr;
};
