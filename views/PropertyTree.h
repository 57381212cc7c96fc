// A property tree: group rows with name and value rows under them, in two
// columns. The dock shows an event's fields in it, read-only; the
// configuration dialog will edit settings in the same widget.
#pragma once

#include <QStandardItemModel>
#include <QVariant>
#include <QWidget>

class QStandardItem;
class QTreeView;

class PropertyTree : public QWidget {
    Q_OBJECT
public:
    explicit PropertyTree(QWidget* parent = nullptr);

    // A group row at the end of the tree; its rows follow with AddRow.
    QStandardItem* AddGroup(const QString& title);
    // A row: its name, and its value (an int or a string).
    void AddRow(QStandardItem* group, const QString& name, const QVariant& value);
    // Removes every group.
    void Clear();
    // Expands the groups and fits both columns to their contents.
    void ResizeToContents();

    QTreeView* View() const { return m_view; }
    QStandardItemModel& Model() { return m_model; }
    // The group titles, top to bottom.
    QStringList GroupTitles() const;
    // The rows of group number g as "name=value".
    QStringList Rows(int g) const;

private:
    QTreeView* m_view = nullptr;
    QStandardItemModel m_model;
};
