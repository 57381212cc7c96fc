// The product test panel (the device's serial number) and the about box (its
// texts from the build: the project's version and the Qt linked at run time).
#include "views/ABout.h"
#include "views/QProductTest.h"

#include <gtest/gtest.h>

#include <QLabel>

#include <cstring>

namespace {

std::vector<uint8_t> Record(uint8_t first)
{
    std::vector<uint8_t> record(1024, 0);
    for (int k = 0; k < 16; ++k)
        record[100 + k] = static_cast<uint8_t>(first + k);
    return record;
}

}  // namespace

TEST(ProductTest, FormAndEmptySerialBeforeADevice)
{
    QProductTest p;
    EXPECT_EQ(p.windowTitle(), "Product Test");
    EXPECT_EQ(p.size(), QSize(459, 62));
    EXPECT_EQ(p.findChild<QLabel*>("label")->text(), "Serial Number:");
    EXPECT_TRUE(p.findChild<QLabel*>("label_serial_number")->text().isEmpty());
    // A window of its own, also when the main window owns it.
    QWidget owner;
    QProductTest owned(&owner);
    EXPECT_TRUE(owned.isWindow());
}

TEST(ProductTest, ShowsTheNineCountedBytesOfTheDeviceNumberAndASecondDeviceReplacesThem)
{
    QProductTest p;
    std::vector<uint8_t> first = Record(0x0A);
    p.SetSerial(first.data());
    EXPECT_EQ(p.SerialLabel()->text(), "0A 0B 0C 0D 0E 0F 10 11 12 ");
    std::vector<uint8_t> second = Record(0xF0);
    p.SetSerial(second.data());
    EXPECT_EQ(p.SerialLabel()->text(), "F0 F1 F2 F3 F4 F5 F6 F7 F8 ");
    p.SetSerial(nullptr);  // nothing to show: the text stays
    EXPECT_EQ(p.SerialLabel()->text(), "F0 F1 F2 F3 F4 F5 F6 F7 F8 ");
}

TEST(About, TextsComeFromTheBuild)
{
    ABout a;
    EXPECT_EQ(a.windowTitle(), "About Coilscope");
    EXPECT_EQ(a.size(), QSize(716, 314));
    auto* version = a.findChild<QLabel*>("label");
    auto* build = a.findChild<QLabel*>("label_2");
    ASSERT_TRUE(version && build);
    EXPECT_EQ(version->text(), QStringLiteral("Coilscope ") + QLatin1String(COILSCOPE_VERSION));
    EXPECT_TRUE(build->text().startsWith(QStringLiteral("Based on Qt ") + QLatin1String(qVersion()) + " ("))
        << build->text().toStdString();
    EXPECT_TRUE(build->text().endsWith(")"));
    EXPECT_EQ(version->font().pointSize(), 12);
    EXPECT_EQ(build->font().pointSize(), 9);
    EXPECT_TRUE(a.findChild<QLabel*>("label_3")->text().isEmpty());
    auto* logo = a.findChild<QLabel*>("label_4");
    ASSERT_TRUE(logo);
    EXPECT_FALSE(logo->pixmap(Qt::ReturnByValue).isNull());
}
