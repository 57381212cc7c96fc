// A property tree: group rows with name and value rows under them, in two
// columns. The dock shows an event's fields in it, read-only; the
// configuration dialog edits settings in the same widget, through editable
// rows: a bool is a check box, an int a spin box, a string a line edit.
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
    // An editable row. The value's type chooses the editor: bool a check box
    // (always shown), int a spin box over the whole int range, a string a line
    // edit. What the user types reaches the row's value at once.
    QStandardItem* AddEditableRow(QStandardItem* group, const QString& name, const QVariant& value);
    // The value cell of the row `name` in the group `group`; null when there
    // is no such row.
    QStandardItem* ValueItem(const QString& group, const QString& name) const;
    // The value of that row (invalid when there is none), and its new value.
    QVariant Value(const QString& group, const QString& name) const;
    void SetValue(const QString& group, const QString& name, const QVariant& value);
    // The group row of that title, null when there is none.
    QStandardItem* Group(const QString& title) const;
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
    void MakeEditable();

    QTreeView* m_view = nullptr;
    bool m_editable = false;
    QStandardItemModel m_model;
};
