#include "views/PropertyTree.h"

#include <QApplication>
#include <QCheckBox>
#include <QGridLayout>
#include <QHeaderView>
#include <QLineEdit>
#include <QSpinBox>
#include <QStyledItemDelegate>
#include <QTreeView>

#include <climits>

namespace {

// The editors of the editable rows, chosen by the type of the row's value.
// Every change is handed to the model as it happens, so the value cell always
// holds what the editor shows, also while the editor is still open.
class PropertyDelegate : public QStyledItemDelegate {
public:
    using QStyledItemDelegate::QStyledItemDelegate;

    QWidget* createEditor(QWidget* parent, const QStyleOptionViewItem& option,
                          const QModelIndex& index) const override
    {
        const QVariant value = index.data(Qt::EditRole);
        // commitData is a signal of this delegate; the editors call it on
        // every change.
        auto* self = const_cast<PropertyDelegate*>(this);
        switch (value.userType()) {
        case QMetaType::Bool: {
            auto* box = new QCheckBox(parent);
            box->setAutoFillBackground(true);
            connect(box, &QCheckBox::toggled, self, [self, box] { emit self->commitData(box); });
            return box;
        }
        case QMetaType::Int: {
            auto* spin = new QSpinBox(parent);
            spin->setRange(INT_MIN, INT_MAX);
            spin->setFrame(false);
            connect(spin, QOverload<int>::of(&QSpinBox::valueChanged), self, [self, spin] { emit self->commitData(spin); });
            return spin;
        }
        case QMetaType::QString: {
            auto* line = new QLineEdit(parent);
            line->setFrame(false);
            connect(line, &QLineEdit::textEdited, self, [self, line] { emit self->commitData(line); });
            return line;
        }
        default:
            return QStyledItemDelegate::createEditor(parent, option, index);
        }
    }

    // Sets the editor only where it differs, so that the echo of a committed
    // change neither moves the cursor of a line edit nor loops.
    void setEditorData(QWidget* editor, const QModelIndex& index) const override
    {
        const QVariant value = index.data(Qt::EditRole);
        if (auto* box = qobject_cast<QCheckBox*>(editor)) {
            if (box->isChecked() != value.toBool())
                box->setChecked(value.toBool());
        } else if (auto* spin = qobject_cast<QSpinBox*>(editor)) {
            if (spin->value() != value.toInt())
                spin->setValue(value.toInt());
        } else if (auto* line = qobject_cast<QLineEdit*>(editor)) {
            if (line->text() != value.toString())
                line->setText(value.toString());
        } else {
            QStyledItemDelegate::setEditorData(editor, index);
        }
    }

    void setModelData(QWidget* editor, QAbstractItemModel* model, const QModelIndex& index) const override
    {
        if (auto* box = qobject_cast<QCheckBox*>(editor))
            model->setData(index, box->isChecked(), Qt::EditRole);
        else if (auto* spin = qobject_cast<QSpinBox*>(editor))
            model->setData(index, spin->value(), Qt::EditRole);
        else if (auto* line = qobject_cast<QLineEdit*>(editor))
            model->setData(index, line->text(), Qt::EditRole);
        else
            QStyledItemDelegate::setModelData(editor, model, index);
    }

    // A bool cell shows its check box editor, never the words true or false.
    void paint(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const override
    {
        if (index.data(Qt::EditRole).userType() != QMetaType::Bool) {
            QStyledItemDelegate::paint(painter, option, index);
            return;
        }
        QStyleOptionViewItem opt = option;
        initStyleOption(&opt, index);
        opt.text.clear();
        const QWidget* widget = option.widget;
        QStyle* style = widget ? widget->style() : QApplication::style();
        style->drawControl(QStyle::CE_ItemViewItem, &opt, painter, widget);
    }
};

}  // namespace

PropertyTree::PropertyTree(QWidget* parent) : QWidget(parent)
{
    auto* layout = new QGridLayout(this);
    layout->setSpacing(6);
    layout->setContentsMargins(11, 11, 11, 11);
    m_view = new QTreeView(this);
    m_view->setObjectName(QStringLiteral("qttreepropertybrowser"));
    m_view->setHeaderHidden(true);
    m_view->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_view->setAlternatingRowColors(true);
    m_view->setUniformRowHeights(true);
    m_model.setColumnCount(2);
    m_model.setHorizontalHeaderLabels({QStringLiteral("Property"), QStringLiteral("Value")});
    m_view->setModel(&m_model);
    layout->addWidget(m_view, 0, 0);
}

QStandardItem* PropertyTree::AddGroup(const QString& title)
{
    auto* group = new QStandardItem(title);
    group->setEditable(false);
    QFont bold = group->font();
    bold.setBold(true);
    group->setFont(bold);
    auto* blank = new QStandardItem();
    blank->setEditable(false);
    m_model.appendRow({group, blank});
    return group;
}

void PropertyTree::AddRow(QStandardItem* group, const QString& name, const QVariant& value)
{
    auto* key = new QStandardItem(name);
    key->setEditable(false);
    auto* cell = new QStandardItem();
    cell->setData(value, Qt::DisplayRole);
    // A value wider than the pane (a note, a long text) reads whole on hover.
    if (value.type() == QVariant::String)
        cell->setToolTip(value.toString());
    cell->setEditable(false);
    group->appendRow({key, cell});
}

void PropertyTree::MakeEditable()
{
    if (m_editable)
        return;
    m_editable = true;
    m_view->setItemDelegateForColumn(1, new PropertyDelegate(m_view));
    m_view->header()->setStretchLastSection(true);
    m_view->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    m_view->setEditTriggers(QAbstractItemView::CurrentChanged | QAbstractItemView::SelectedClicked |
                            QAbstractItemView::DoubleClicked | QAbstractItemView::EditKeyPressed);
}

QStandardItem* PropertyTree::AddEditableRow(QStandardItem* group, const QString& name, const QVariant& value)
{
    MakeEditable();
    auto* key = new QStandardItem(name);
    key->setEditable(false);
    auto* cell = new QStandardItem();
    cell->setData(value, Qt::EditRole);
    cell->setEditable(true);
    group->appendRow({key, cell});
    // A check box stays in its cell, as a property browser shows it.
    if (value.userType() == QMetaType::Bool)
        m_view->openPersistentEditor(cell->index());
    return cell;
}

QStandardItem* PropertyTree::Group(const QString& title) const
{
    for (int r = 0; r < m_model.rowCount(); ++r)
        if (m_model.item(r, 0)->text() == title)
            return m_model.item(r, 0);
    return nullptr;
}

QStandardItem* PropertyTree::ValueItem(const QString& group, const QString& name) const
{
    const QStandardItem* g = Group(group);
    if (!g)
        return nullptr;
    for (int r = 0; r < g->rowCount(); ++r)
        if (g->child(r, 0)->text() == name)
            return g->child(r, 1);
    return nullptr;
}

QVariant PropertyTree::Value(const QString& group, const QString& name) const
{
    const QStandardItem* cell = ValueItem(group, name);
    return cell ? cell->data(Qt::EditRole) : QVariant();
}

void PropertyTree::SetValue(const QString& group, const QString& name, const QVariant& value)
{
    if (QStandardItem* cell = ValueItem(group, name))
        cell->setData(value, Qt::EditRole);
}

void PropertyTree::Clear()
{
    m_model.removeRows(0, m_model.rowCount());
}

void PropertyTree::ResizeToContents()
{
    m_view->expandAll();
    m_view->resizeColumnToContents(0);
    // An editable tree keeps its values within the width of the view: the
    // value column takes the rest, and an editor never scrolls the names away.
    if (!m_editable)
        m_view->resizeColumnToContents(1);
}

QStringList PropertyTree::GroupTitles() const
{
    QStringList titles;
    for (int r = 0; r < m_model.rowCount(); ++r)
        titles << m_model.item(r, 0)->text();
    return titles;
}

QStringList PropertyTree::Rows(int g) const
{
    QStringList rows;
    const QStandardItem* group = m_model.item(g, 0);
    if (!group)
        return rows;
    for (int r = 0; r < group->rowCount(); ++r)
        rows << group->child(r, 0)->text() + QLatin1Char('=') + group->child(r, 1)->data(Qt::DisplayRole).toString();
    return rows;
}
