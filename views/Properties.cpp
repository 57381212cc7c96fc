#include "views/Properties.h"

#include "views/PropertyTree.h"

#include <QGridLayout>
#include <QTreeView>

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
    m_tree = new PropertyTree(this);
    layout->addWidget(m_tree, 0, 0);
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
    m_tree->ResizeToContents();
}

bool Properties::FocusTest() const
{
    return hasFocus() || m_tree->View()->hasFocus();
}
