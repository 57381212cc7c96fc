// The dissection below the event properties: a packet's fields as a tree
// with value, unit and bits, its bytes in hex, and the selection going both
// ways between them, with real mouse clicks.
#include "ViewTestEvents.h"
#include "views/Properties.h"
#include "views/PropertyTree.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QHeaderView>
#include <QTableWidget>
#include <QTest>
#include <QTreeWidget>

namespace {

// A receiver packet with its checksum appended, as the sniffer reports it.
MsgInfoPtr Packet(int type, const std::string& text, std::vector<uint8_t> bytes)
{
    uint8_t sum = 0;
    for (uint8_t b : bytes)
        sum ^= b;
    bytes.push_back(sum);
    std::string hex;
    for (uint8_t b : bytes) {
        char h[4];
        std::snprintf(h, sizeof h, "%02X ", b);
        hex += h;
    }
    return MakeEvent(type, 2, text, hex);
}

QTreeWidgetItem* FindField(QTreeWidget* tree, const QString& name)
{
    const QList<QTreeWidgetItem*> found = tree->findItems(name, Qt::MatchExactly | Qt::MatchRecursive, 0);
    return found.isEmpty() ? nullptr : found.first();
}

void ClickField(QTreeWidget* tree, QTreeWidgetItem* item)
{
    ASSERT_TRUE(item);
    QCoreApplication::processEvents();
    tree->scrollToItem(item);
    ASSERT_TRUE(tree->viewport()->rect().contains(tree->visualItemRect(item).center()));
    QTest::mouseClick(tree->viewport(), Qt::LeftButton, Qt::NoModifier, tree->visualItemRect(item).center());
}

void ClickByte(QTableWidget* bytes, int index)
{
    QCoreApplication::processEvents();
    QTableWidgetItem* cell = bytes->item(index / Properties::kBytesPerRow, index % Properties::kBytesPerRow);
    ASSERT_TRUE(cell);
    QTest::mouseClick(bytes->viewport(), Qt::LeftButton, Qt::NoModifier, bytes->visualItemRect(cell).center());
}

}  // namespace

TEST(DissectionPane, ConfigurationFieldsWithValuesUnitsBitsAndBytes)
{
    Properties p;
    p.resize(500, 700);
    p.show();
    const MsgInfoPtr e = Packet(0x51, "Configuration", {0x51, 0x0A, 0x00, 0x83, 0x0A, 0xC0});
    p.Fill(*e, kItemEvent);
    QTreeWidget* fields = p.FieldsView();
    QTableWidget* bytes = p.BytesView();
    ASSERT_TRUE(fields->isVisible());
    ASSERT_TRUE(bytes->isVisible());
    EXPECT_EQ(fields->headerItem()->text(0), "Field");
    EXPECT_EQ(fields->headerItem()->text(3), "Bits");
    QTreeWidgetItem* wsize = FindField(fields, "Window size");
    ASSERT_TRUE(wsize);
    EXPECT_EQ(wsize->text(1), "4");
    EXPECT_EQ(wsize->text(2), "ms");
    EXPECT_EQ(wsize->text(3), "byte 4, bits 7-3");
    EXPECT_EQ(fields->topLevelItem(0)->text(1), "0x51 Configuration");
    // Seven bytes in hex, the checksum last.
    EXPECT_EQ(bytes->rowCount(), 1);
    EXPECT_EQ(bytes->item(0, 0)->text(), "51");
    EXPECT_EQ(bytes->item(0, 3)->text(), "83");
    ASSERT_TRUE(bytes->item(0, 6));
    EXPECT_FALSE(bytes->item(0, 7));

    // A field selects its bytes.
    ClickField(fields, wsize);
    EXPECT_EQ(p.SelectedBytes(), std::vector<int>{4});
    ClickField(fields, FindField(fields, "Depth"));
    EXPECT_EQ(p.SelectedBytes(), std::vector<int>{5});
    // A byte selects its field.
    ClickByte(bytes, 1);
    ASSERT_TRUE(fields->currentItem());
    EXPECT_TRUE(fields->currentItem()->isSelected());
    EXPECT_TRUE(fields->currentItem()->text(3).startsWith("byte 1")) << fields->currentItem()->text(3).toStdString();
    EXPECT_EQ(p.SelectedBytes(), std::vector<int>{1});
}

TEST(DissectionPane, IdentificationByteSelectsTheManufacturerCodeAndItsTwoBytes)
{
    Properties p;
    p.resize(500, 700);
    p.show();
    const MsgInfoPtr e = Packet(0x71, "Identification", {0x71, 0x12, 0x00, 0x2A, 0x81, 0x02, 0x03, 0x04});
    p.Fill(*e, kItemEvent);
    ClickByte(p.BytesView(), 3);
    ASSERT_TRUE(p.FieldsView()->currentItem());
    EXPECT_EQ(p.FieldsView()->currentItem()->text(0), "Manufacturer code");
    EXPECT_EQ(p.FieldsView()->currentItem()->text(1), "0x002a");
    EXPECT_EQ(p.SelectedBytes(), (std::vector<int>{2, 3}));
    ClickField(p.FieldsView(), FindField(p.FieldsView(), "Device identifier"));
    EXPECT_EQ(p.SelectedBytes(), (std::vector<int>{4, 5, 6, 7}));
}

TEST(DissectionPane, GroupsAndMarkersHaveNoDissection)
{
    Properties p;
    p.show();
    const MsgInfoPtr e = Packet(0x51, "Configuration", {0x51, 0x0A, 0x00, 0x83, 0x0A, 0xC0});
    p.Fill(*e, kItemEvent);
    ASSERT_TRUE(p.FieldsView()->isVisible());
    p.Fill(*e, kItemPhase);
    EXPECT_FALSE(p.FieldsView()->isVisible());
    EXPECT_FALSE(p.BytesView()->isVisible());
    EXPECT_EQ(p.FieldsView()->topLevelItemCount(), 0);
    // The property groups are as they were.
    EXPECT_EQ(p.Tree()->GroupTitles(), (QStringList{"Event Properties", "Timing Properties"}));
}
