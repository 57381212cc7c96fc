#include "views/PropertyTree.h"

#include <QGridLayout>
#include <QHeaderView>
#include <QTreeView>

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
    cell->setEditable(false);
    group->appendRow({key, cell});
}

void PropertyTree::Clear()
{
    m_model.removeRows(0, m_model.rowCount());
}

void PropertyTree::ResizeToContents()
{
    m_view->expandAll();
    m_view->resizeColumnToContents(0);
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
