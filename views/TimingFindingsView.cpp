#include "views/TimingFindingsView.h"

#include <QHeaderView>
#include <QLabel>
#include <QTreeWidget>
#include <QVBoxLayout>

namespace {

// Numbers sort as numbers, not as text.
class FindingItem : public QTreeWidgetItem {
public:
    using QTreeWidgetItem::QTreeWidgetItem;
    bool operator<(const QTreeWidgetItem& other) const override
    {
        const int c = treeWidget() ? treeWidget()->sortColumn() : 0;
        const QVariant a = data(c, Qt::UserRole), b = other.data(c, Qt::UserRole);
        if (a.isValid() && b.isValid())
            return a.toDouble() < b.toDouble();
        return text(c) < other.text(c);
    }
};

}  // namespace

TimingFindingsView::TimingFindingsView(QWidget* parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("TimingFindingsView"));
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(2, 2, 2, 2);
    m_summary = new QLabel(this);
    m_summary->setObjectName(QStringLiteral("timingSummary"));
    m_summary->setWordWrap(true);
    layout->addWidget(m_summary);
    m_list = new QTreeWidget(this);
    m_list->setObjectName(QStringLiteral("timingFindings"));
    m_list->setRootIsDecorated(false);
    m_list->setColumnCount(kColumns);
    m_list->setHeaderLabels({QStringLiteral("Time (ms)"), QStringLiteral("Event"), QStringLiteral("Rule"),
                             QStringLiteral("Severity"), QStringLiteral("Measured"), QStringLiteral("Limit")});
    m_list->setSortingEnabled(true);
    m_list->sortByColumn(kTime, Qt::AscendingOrder);
    m_list->header()->setSectionResizeMode(QHeaderView::ResizeToContents);
    layout->addWidget(m_list, 1);
    connect(m_list, &QTreeWidget::itemDoubleClicked, this, [this](QTreeWidgetItem* item, int) {
        if (item)
            emit eventActivated(item->data(kEvent, Qt::UserRole).toLongLong());
    });
    m_summary->setText(QStringLiteral("No session checked."));
}

void TimingFindingsView::AddFinding(const analysis::TimingFinding& f)
{
    if (m_list->topLevelItemCount() >= kMaxRows) {
        ++m_unlisted;
        return;
    }
    auto* item = new FindingItem();
    const std::string u = f.unit.empty() ? std::string() : " " + f.unit;
    item->setText(kTime, QString::number(static_cast<double>(f.timeUs) / 1000.0, 'f', 3));
    item->setData(kTime, Qt::UserRole, static_cast<double>(f.timeUs));
    item->setText(kRule, QString::fromLatin1(analysis::RuleName(f.rule)));
    item->setText(kSeverity, QString::fromLatin1(analysis::SeverityWord(f.severity)));
    item->setText(kMeasured, QString::fromStdString(analysis::FindingNumber(f.measured) + u));
    item->setData(kMeasured, Qt::UserRole, f.measured);
    item->setText(kLimit, QString::fromStdString(f.op + " " + analysis::FindingNumber(f.limit) + u));
    item->setData(kLimit, Qt::UserRole, f.limit);
    item->setText(kEvent, QString::number(f.event));
    item->setData(kEvent, Qt::UserRole, static_cast<qlonglong>(f.event));
    for (int c : {kTime, kMeasured, kEvent})
        item->setTextAlignment(c, Qt::AlignRight | Qt::AlignVCenter);
    if (f.severity == analysis::Severity::Error)
        item->setForeground(kSeverity, QBrush(Qt::red));
    m_list->addTopLevelItem(item);
}

void TimingFindingsView::ClearFindings()
{
    m_list->clear();
    m_unlisted = 0;
    m_summary->setText(QStringLiteral("No session checked."));
}

QString TimingFindingsView::SummaryText(const analysis::TimingChecker& c)
{
    QString text = QStringLiteral("Checked %1 packets: %2 errors, %3 warnings")
                       .arg(c.PacketsChecked())
                       .arg(c.Errors())
                       .arg(c.Warnings());
    QStringList perRule;
    for (int r = 0; r < analysis::kTimingRuleCount; ++r) {
        const auto rule = static_cast<analysis::TimingRule>(r);
        if (c.CountOf(rule) > 0)
            perRule << QStringLiteral("%1 %2").arg(QString::fromLatin1(analysis::RuleName(rule))).arg(c.CountOf(rule));
    }
    if (!perRule.isEmpty())
        text += QStringLiteral(" (") + perRule.join(QStringLiteral(", ")) + QLatin1Char(')');
    return text;
}

void TimingFindingsView::UpdateSummary(const analysis::TimingChecker& checker)
{
    QString text = SummaryText(checker);
    if (m_unlisted > 0)
        text += QStringLiteral("; the first %1 listed").arg(kMaxRows);
    if (m_summary->text() != text)
        m_summary->setText(text);
}
