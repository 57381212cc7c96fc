#include "views/Properties.h"

#include "views/PropertyTree.h"

#include "analysis/EventFields.h"

#include <algorithm>

#include <QFontDatabase>
#include <QGridLayout>
#include <QHeaderView>
#include <QSplitter>
#include <QTableWidget>
#include <QTreeView>
#include <QTreeWidget>

namespace {

QVariant Text(const std::string& s)
{
    return QString::fromStdString(s);
}

// The tree's int rows hold a 32-bit int.
QVariant Int(int64_t v)
{
    return static_cast<int>(v);
}

enum Group { kCommon, kDevice, kEvent, kPacket, kBitTiming, kTiming, kTime };

void AddGroup(PropertyTree& tree, Group g, const MsgInfo& e)
{
    switch (g) {
    case kCommon: {
        QStandardItem* group = tree.AddGroup(QStringLiteral("Common Properties"));
        tree.AddRow(group, QStringLiteral("EventNumber"), Int(e.common.eventNumber));
        tree.AddRow(group, QStringLiteral("LogData"), Text(e.common.logData));
        tree.AddRow(group, QStringLiteral("Summary"), Text(e.common.Summary));
        tree.AddRow(group, QStringLiteral("TypeString"), Text(e.common.typeString));
        break;
    }
    case kDevice: {
        QStandardItem* group = tree.AddGroup(QStringLiteral("Device Properties"));
        tree.AddRow(group, QStringLiteral("BootLoaderVersion"), Text(e.device.bootLoaderVersion));
        tree.AddRow(group, QStringLiteral("DeviceType"), Text(e.device.deviceType));
        tree.AddRow(group, QStringLiteral("FirmwareBuildDate"), Text(e.device.firmwareBuildDate));
        tree.AddRow(group, QStringLiteral("FirmwareVersion"), Text(e.device.firewareVersion));
        tree.AddRow(group, QStringLiteral("HardwareVersion"), Text(e.device.hardwareVersion));
        tree.AddRow(group, QStringLiteral("SerialNumber"), Text(e.device.serialNumber));
        tree.AddRow(group, QStringLiteral("SoftwareVersion"), Text(e.device.softwareVersion));
        break;
    }
    case kEvent: {
        QStandardItem* group = tree.AddGroup(QStringLiteral("Event Properties"));
        tree.AddRow(group, QStringLiteral("EventCount"), Int(e.eventG.eventCount));
        tree.AddRow(group, QStringLiteral("FailureCount"), Int(e.eventG.failureCount));
        tree.AddRow(group, QStringLiteral("FirstEventNumber"), Int(e.eventG.FirstEventNumber));
        tree.AddRow(group, QStringLiteral("LastEventNumber"), Int(e.eventG.lastEventNumber));
        tree.AddRow(group, QStringLiteral("Phase"), Text(e.eventG.phase));
        tree.AddRow(group, QStringLiteral("WarningCount"), Int(e.eventG.warningCount));
        break;
    }
    case kPacket: {
        QStandardItem* group = tree.AddGroup(QStringLiteral("Packet Properties"));
        tree.AddRow(group, QStringLiteral("Data Packet Error"), Text(e.packet.dataPacketError));
        tree.AddRow(group, QStringLiteral("NumBytesInPacket"), Int(static_cast<int64_t>(e.packet.numbytesInPacket)));
        tree.AddRow(group, QStringLiteral("PacketData"), Text(e.packet.PacketData));
        tree.AddRow(group, QStringLiteral("PacketStatus"), Text(e.packet.Status));
        tree.AddRow(group, QStringLiteral("PreambleCount"), Int(static_cast<int64_t>(e.packet.premambleCount)));
        // Rows of their own where the second reader recovered or corrected
        // the packet; other packets show the rows they always had.
        if (!e.packet.reading.empty())
            tree.AddRow(group, QStringLiteral("Reading"), Text(e.packet.reading));
        // The other reading is the first reader's of the packet's side: the
        // list decoder's for the receiver, the frame decoder's for the
        // transmitter.
        if (!e.packet.otherReading.empty())
            tree.AddRow(group,
                        e.direction == 1 ? QStringLiteral("Frame Decoder Reading")
                                         : QStringLiteral("List Decoder Reading"),
                        Text(e.packet.otherReading));
        break;
    }
    case kBitTiming: {
        QStandardItem* group = tree.AddGroup(QStringLiteral("Timing Properties"));
        tree.AddRow(group, QStringLiteral("BitTimeUs"), Int(static_cast<int64_t>(e.timing.bitTimesUs)));
        tree.AddRow(group, QStringLiteral("CarrierCurrentHz"), Int(static_cast<int64_t>(e.timing.carrierCurrentHz)));
        tree.AddRow(group, QStringLiteral("Duration"), Text(e.timing.duration));
        tree.AddRow(group, QStringLiteral("StartTime"), Int(static_cast<int64_t>(e.timing.startTime)));
        tree.AddRow(group, QStringLiteral("StartTimeStamp"), Text(e.timing.startTimeStamp));
        tree.AddRow(group, QStringLiteral("EndTime"), Int(static_cast<int64_t>(e.timing.endTime)));
        tree.AddRow(group, QStringLiteral("EndTimeStamp"), Text(e.timing.endTimeStamp));
        break;
    }
    case kTiming: {
        QStandardItem* group = tree.AddGroup(QStringLiteral("Timing Properties"));
        tree.AddRow(group, QStringLiteral("Duration"), Text(e.timings.duration));
        tree.AddRow(group, QStringLiteral("StartTime"), Int(e.timings.startTime));
        tree.AddRow(group, QStringLiteral("StartTimeStamp"), Text(e.timings.startTimeStamp));
        tree.AddRow(group, QStringLiteral("EndTime"), Int(e.timings.endTime));
        tree.AddRow(group, QStringLiteral("EndTimeStamp"), Text(e.timings.endTimeStamp));
        break;
    }
    case kTime: {
        QStandardItem* group = tree.AddGroup(QStringLiteral("Timing Properties"));
        tree.AddRow(group, QStringLiteral("Time"), Text(e.timingsample.time));
        break;
    }
    }
}

}  // namespace

Properties::Properties(QWidget* parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("Properties"));
    resize(407, 394);
    setWindowTitle(QStringLiteral("Event Properties"));
    auto* layout = new QGridLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    m_splitter = new QSplitter(Qt::Vertical, this);
    m_splitter->setObjectName(QStringLiteral("propertiesSplitter"));
    m_tree = new PropertyTree(m_splitter);
    m_splitter->addWidget(m_tree);

    m_fields = new QTreeWidget(m_splitter);
    m_fields->setObjectName(QStringLiteral("fieldsView"));
    m_fields->setColumnCount(4);
    m_fields->setHeaderLabels({QStringLiteral("Field"), QStringLiteral("Value"), QStringLiteral("Unit"),
                               QStringLiteral("Bits")});
    m_fields->setSelectionMode(QAbstractItemView::SingleSelection);
    m_fields->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_splitter->addWidget(m_fields);

    m_bytes = new QTableWidget(m_splitter);
    m_bytes->setObjectName(QStringLiteral("bytesView"));
    m_bytes->setColumnCount(kBytesPerRow);
    m_bytes->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_bytes->setSelectionMode(QAbstractItemView::ExtendedSelection);
    m_bytes->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    m_bytes->horizontalHeader()->setSectionResizeMode(QHeaderView::ResizeToContents);
    m_bytes->horizontalHeader()->setMinimumSectionSize(10);
    m_bytes->verticalHeader()->setSectionResizeMode(QHeaderView::ResizeToContents);
    QStringList columns;
    for (int c = 0; c < kBytesPerRow; ++c)
        columns << QString::number(c, 16).toUpper();
    m_bytes->setHorizontalHeaderLabels(columns);
    m_splitter->addWidget(m_bytes);
    m_splitter->setStretchFactor(0, 3);
    m_splitter->setStretchFactor(1, 3);
    m_splitter->setStretchFactor(2, 1);
    m_fields->hide();
    m_bytes->hide();
    layout->addWidget(m_splitter, 0, 0);

    connect(m_fields, &QTreeWidget::itemSelectionChanged, this, &Properties::FieldSelected);
    connect(m_bytes, &QTableWidget::itemSelectionChanged, this, &Properties::BytesSelected);
}

namespace {

void AddFields(QTreeWidgetItem* parent, QTreeWidget* tree, const std::vector<analysis::DissectedField>& fields)
{
    for (size_t i = 0; i < fields.size(); ++i) {
        const analysis::DissectedField& f = fields[i];
        const QStringList texts{QString::fromStdString(f.name), QString::fromStdString(f.value),
                                QString::fromStdString(f.unit), QString::fromStdString(f.BitsText())};
        auto* item = parent ? new QTreeWidgetItem(parent, texts) : new QTreeWidgetItem(tree, texts);
        if (!f.filterName.empty())
            item->setToolTip(0, QStringLiteral("Display filter: ") + QString::fromStdString(f.filterName));
        AddFields(item, tree, f.children);
    }
}

// The index path of an item from the top level.
std::vector<int> PathOf(const QTreeWidgetItem* item)
{
    std::vector<int> path;
    while (item) {
        const QTreeWidgetItem* parent = item->parent();
        path.insert(path.begin(), parent ? parent->indexOfChild(const_cast<QTreeWidgetItem*>(item))
                                         : item->treeWidget()->indexOfTopLevelItem(const_cast<QTreeWidgetItem*>(item)));
        item = parent;
    }
    return path;
}

}  // namespace

void Properties::FillDissection(const MsgInfo& info, int mode)
{
    m_syncing = true;
    m_fields->clear();
    m_bytes->clearContents();
    m_bytes->setRowCount(0);
    m_dissected.clear();
    if (mode == kItemEvent)
        m_dissected = analysis::Dissect(info);
    const std::vector<uint8_t> bytes = analysis::ParseSpacedHex(info.packet.PacketData);
    AddFields(nullptr, m_fields, m_dissected);
    m_fields->expandAll();
    for (int c = 0; c < 4; ++c)
        m_fields->resizeColumnToContents(c);
    const bool withBytes = mode == kItemEvent && !bytes.empty();
    m_bytes->setRowCount(static_cast<int>((bytes.size() + kBytesPerRow - 1) / kBytesPerRow));
    QStringList rows;
    for (size_t i = 0; i < bytes.size(); ++i) {
        auto* cell = new QTableWidgetItem(QStringLiteral("%1").arg(bytes[i], 2, 16, QLatin1Char('0')).toUpper());
        cell->setTextAlignment(Qt::AlignCenter);
        m_bytes->setItem(static_cast<int>(i) / kBytesPerRow, static_cast<int>(i) % kBytesPerRow, cell);
        if (i % kBytesPerRow == 0)
            rows << QStringLiteral("%1").arg(i, 4, 16, QLatin1Char('0'));
    }
    m_bytes->setVerticalHeaderLabels(rows);
    m_fields->setVisible(!m_dissected.empty());
    m_bytes->setVisible(withBytes);
    m_syncing = false;
}

const analysis::DissectedField* Properties::FieldOf(const QTreeWidgetItem* item) const
{
    if (!item)
        return nullptr;
    const std::vector<analysis::DissectedField>* level = &m_dissected;
    const analysis::DissectedField* field = nullptr;
    for (int i : PathOf(item)) {
        if (i < 0 || static_cast<size_t>(i) >= level->size())
            return nullptr;
        field = &(*level)[i];
        level = &field->children;
    }
    return field;
}

void Properties::FieldSelected()
{
    if (m_syncing)
        return;
    m_syncing = true;
    m_bytes->clearSelection();
    const QList<QTreeWidgetItem*> selected = m_fields->selectedItems();
    if (const analysis::DissectedField* f = selected.isEmpty() ? nullptr : FieldOf(selected.first())) {
        for (int b = f->byteOffset; f->byteOffset >= 0 && b < f->byteOffset + f->byteCount; ++b)
            if (QTableWidgetItem* cell = m_bytes->item(b / kBytesPerRow, b % kBytesPerRow))
                cell->setSelected(true);
        emit fieldBytesSelected(f->byteOffset, f->byteOffset >= 0 ? f->byteCount : 0);
    } else {
        emit fieldBytesSelected(-1, 0);
    }
    m_syncing = false;
}

void Properties::SelectByte(int index)
{
    QTableWidgetItem* cell = index >= 0 ? m_bytes->item(index / kBytesPerRow, index % kBytesPerRow) : nullptr;
    if (!cell)
        return;
    m_bytes->clearSelection();
    m_bytes->setCurrentItem(cell);
    cell->setSelected(true);
}

void Properties::BytesSelected()
{
    if (m_syncing)
        return;
    const QList<QTableWidgetItem*> cells = m_bytes->selectedItems();
    if (cells.isEmpty())
        return;
    QTableWidgetItem* cell = m_bytes->currentItem() && m_bytes->currentItem()->isSelected() ? m_bytes->currentItem()
                                                                                          : cells.first();
    const int index = cell->row() * kBytesPerRow + cell->column();
    const std::vector<int> path = analysis::FieldPathAtByte(m_dissected, index);
    if (path.empty())
        return;
    QTreeWidgetItem* item = m_fields->topLevelItem(path[0]);
    for (size_t i = 1; item && i < path.size(); ++i)
        item = item->child(path[i]);
    if (!item)
        return;
    m_syncing = true;
    m_fields->setCurrentItem(item);
    m_fields->scrollToItem(item);
    m_syncing = false;
    // The byte selection grows to the whole field.
    FieldSelected();
}

std::vector<int> Properties::SelectedBytes() const
{
    std::vector<int> out;
    for (QTableWidgetItem* cell : m_bytes->selectedItems())
        out.push_back(cell->row() * kBytesPerRow + cell->column());
    std::sort(out.begin(), out.end());
    return out;
}

void Properties::Fill(const MsgInfo& info, int mode)
{
    m_tree->Clear();
    // The groups of each item kind (index: the kind).
    static const std::vector<Group> kGroups[] = {
        {},                             // no kind
        {kCommon, kPacket, kBitTiming}, // single event
        {kEvent, kTiming},              // "Control Error" group
        {},                             // "Digital Ping" group
        {kEvent, kTiming},              // phase group
        {kDevice, kEvent, kTiming},     // root
        {kCommon, kDevice, kTime},      // Start marker
        {kCommon, kDevice, kTime},      // Stop marker
        {kCommon, kBitTiming},          // violation, contract
    };
    if (mode < 0 || mode > 8)
        mode = 0;
    const std::vector<Group>& groups = kGroups[mode];
    for (Group g : groups)
        AddGroup(*m_tree, g, info);
    if (mode == kItemEvent)
        AddTimingGroup(info);
    m_tree->ResizeToContents();
    FillDissection(info, mode);
}

void Properties::ShowRecordNote(const QString& note)
{
    if (note.isEmpty())
        return;
    QStandardItem* group = m_tree->AddGroup(QStringLiteral("Capture Record"));
    m_tree->AddRow(group, QStringLiteral("Wave"), note);
    m_tree->ResizeToContents();
}

void Properties::AddTimingGroup(const MsgInfo& info)
{
    const int64_t number = info.common.eventNumber > 0 ? info.common.eventNumber : info.id;
    const analysis::PacketTiming* p = m_timing ? m_timing->TimingOf(number) : nullptr;
    if (!p)
        return;
    QStandardItem* group = m_tree->AddGroup(QStringLiteral("Timing"));
    const auto ms = [](double v) { return QString::fromStdString(analysis::FindingNumber(v) + " ms"); };
    m_tree->AddRow(group, QStringLiteral("Gap Before"), p->gapBeforeMs < 0.0f ? QStringLiteral("-") : ms(p->gapBeforeMs));
    m_tree->AddRow(group, QStringLiteral("Duration"), ms(p->DurationMs()));
    if (p->rx) {
        m_tree->AddRow(group, QStringLiteral("Bit Rate"),
                       p->bitRateHz > 0.0f ? QString::fromStdString(analysis::FindingNumber(p->bitRateHz) + " Hz")
                                           : QStringLiteral("-"));
        m_tree->AddRow(group, QStringLiteral("Preamble"),
                       p->preamble >= 0 ? QString::number(p->preamble) : QStringLiteral("-"));
    }
    // Each rule it was judged by, and what was found.
    std::vector<const analysis::TimingFinding*> found;
    for (const auto& f : m_timing->Findings())
        if (f.event == number)
            found.push_back(&f);
    for (int r = 0; r < analysis::kTimingRuleCount; ++r) {
        const auto rule = static_cast<analysis::TimingRule>(r);
        if (!p->Judged(rule))
            continue;
        QString result = QStringLiteral("ok");
        for (const auto* f : found)
            if (f->rule == rule)
                result = QString::fromLatin1(analysis::SeverityWord(f->severity)) + QStringLiteral(": ") +
                         QString::fromStdString(f->Text());
        if (p->Broken(rule) && result == QStringLiteral("ok"))
            result = QStringLiteral("broken (see the findings)");
        m_tree->AddRow(group, QString::fromLatin1(analysis::RuleName(rule)), result);
    }
}

bool Properties::FocusTest() const
{
    return hasFocus() || m_tree->View()->hasFocus();
}
