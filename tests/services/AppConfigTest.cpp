// The configuration dialog as a user drives it: the real editors of the
// property tree (spin boxes typed into, check boxes clicked, the save path
// typed), Save, and the settings file read back from disk.
#include "events/ui/UserSeams.h"
#include "services/AppSettings.h"
#include "services/QAppConfig.h"
#include "services/SettingParams.h"
#include "views/PropertyTree.h"

#include <gtest/gtest.h>

#include <json/json.h>

#include <QCheckBox>
#include <QElapsedTimer>
#include <QDir>
#include <QFile>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalSpy>
#include <QSpinBox>
#include <QStandardItem>
#include <QTemporaryDir>
#include <QTest>
#include <QTreeView>

#include <fstream>
#include <sstream>

namespace {

class AppConfigTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        // Every test starts from a fresh settings file.
        QFile::remove(QString::fromStdString(AppSettings::DefaultFilePath()));
        AppSettings::ReloadForTest();
        SetUserMessageRecorder([this](const UserMessage& m) { messages.push_back(m); });
        config = std::make_unique<QAppConfig>();
        config->show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(config.get()));
    }
    void TearDown() override
    {
        config.reset();
        SetUserMessageRecorder({});
    }

    QModelIndex Cell(const char* group, const char* name) const
    {
        QStandardItem* item = config->Tree()->ValueItem(QLatin1String(group), QLatin1String(name));
        EXPECT_NE(item, nullptr) << group << "/" << name;
        return item ? item->index() : QModelIndex();
    }
    // Opens the row's editor as a click on its value does.
    QWidget* Editor(const char* group, const char* name) const
    {
        QTreeView* view = config->Tree()->View();
        const QModelIndex index = Cell(group, name);
        view->scrollTo(index);
        if (!view->indexWidget(index)) {
            // A click on another cell opens the editor at once; on the
            // current cell, after the double-click interval.
            QTest::mouseClick(view->viewport(), Qt::LeftButton, Qt::NoModifier, view->visualRect(index).center());
            QElapsedTimer clock;
            clock.start();
            while (!view->indexWidget(index) && clock.elapsed() < 5000)
                QTest::qWait(10);
        }
        return view->indexWidget(index);
    }
    // Types a number into the row's spin box, replacing what it held.
    void TypeNumber(const char* group, const char* name, int value) const
    {
        QWidget* e = Editor(group, name);
        auto* spin = qobject_cast<QSpinBox*>(e);
        ASSERT_NE(spin, nullptr) << name << " " << (e ? e->metaObject()->className() : "none");
        spin->setFocus();
        QTest::keyClick(spin, Qt::Key_A, Qt::ControlModifier);
        QTest::keyClicks(spin, QString::number(value));
        EXPECT_EQ(spin->value(), value);
    }
    void TypeText(const char* group, const char* name, const QString& text) const
    {
        auto* line = qobject_cast<QLineEdit*>(Editor(group, name));
        ASSERT_NE(line, nullptr) << name;
        line->setFocus();
        QTest::keyClick(line, Qt::Key_A, Qt::ControlModifier);
        QTest::keyClick(line, Qt::Key_Delete);
        // Characters outside ASCII come as a keyboard layout sends them: a
        // key event that carries the text.
        for (const QChar c : text) {
            if (c.unicode() < 0x80) {
                QTest::keyClick(line, c.toLatin1());
            } else {
                QTest::sendKeyEvent(QTest::Press, line, Qt::Key_unknown, QString(c), Qt::NoModifier);
                QTest::sendKeyEvent(QTest::Release, line, Qt::Key_unknown, QString(c), Qt::NoModifier);
            }
        }
        EXPECT_EQ(line->text(), text);
    }
    void Toggle(const char* group, const char* name) const
    {
        auto* box = qobject_cast<QCheckBox*>(Editor(group, name));
        ASSERT_NE(box, nullptr) << name;
        QTest::mouseClick(box, Qt::LeftButton, Qt::NoModifier, QPoint(8, box->height() / 2));
    }
    void Save() const { QTest::mouseClick(config->SaveButton(), Qt::LeftButton); }
    static Json::Value OnDisk()
    {
        std::ifstream in(AppSettings::Instance().FilePath(), std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        Json::Value root;
        EXPECT_TRUE(Json::Reader().parse(text.str(), root)) << text.str();
        return root;
    }
    static std::string FileText()
    {
        std::ifstream in(AppSettings::Instance().FilePath(), std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    std::unique_ptr<QAppConfig> config;
    std::vector<UserMessage> messages;
};

TEST_F(AppConfigTest, FormGroupsAndRowsInOrder)
{
    EXPECT_EQ(config->windowTitle(), "Device Configuration");
    EXPECT_EQ(config->size(), QSize(396, 540));
    EXPECT_EQ(config->Tree()->View()->objectName(), "qttreepropertybrowser");
    EXPECT_TRUE(config->Tree()->View()->isHeaderHidden());
    EXPECT_EQ(config->SaveButton()->objectName(), "pushButton_save");
    EXPECT_EQ(config->SaveButton()->text(), "Save");
    EXPECT_EQ(config->CloseButton()->objectName(), "pushButton_cancle");
    EXPECT_EQ(config->CloseButton()->text(), "Close");
    const PropertyTree& t = *config->Tree();
    EXPECT_EQ(t.GroupTitles(), (QStringList{"ASK", "FSK", "Frequency", "Save Path", "Common", "Timing"}));
    const QString save = QString::fromStdString(SettingParams::Instance().savePath);
    EXPECT_EQ(t.Rows(0), (QStringList{"Signal Reverse=false", "Capture Data=false", "Trigger Samples=2200",
                                      "DAC Value=1700", "Second Reader=true"}));
    EXPECT_EQ(t.Rows(1), (QStringList{"Capture Data=false", "Second Reader=true"}));
    EXPECT_EQ(t.Rows(2), (QStringList{"Min Frequency (Hz)=110000", "Max Frequency (Hz)=210000"}));
    EXPECT_EQ(t.Rows(3), (QStringList{"Data Save Path=" + save}));
    EXPECT_EQ(t.Rows(4), (QStringList{"Window Limit Time (min)=15", "Default Polarity=false"}));
    EXPECT_EQ(t.Rows(5), (QStringList{"Ping to First Packet (ms)=65", "Config Packet Gap (ms)=21",
                                      "Config Packet Length (ms)=170", "Control Error Interval (ms)=350",
                                      "Control Error Timeout (ms)=1800", "Hold-off Min (ms)=5", "Hold-off Max (ms)=205",
                                      "ASK Bit Rate (Hz)=2000", "ASK Bit Rate Tolerance (%)=4",
                                      "Preamble Min (bits)=11", "Preamble Max (bits)=25",
                                      "FSK Response Window (ms)=10", "Terminate after EPT (ms)=28"}));
}

TEST_F(AppConfigTest, ATimingLimitIsSavedToTheFile)
{
    config->Tree()->SetValue(QStringLiteral("Timing"), QStringLiteral("Control Error Interval (ms)"), QVariant(300));
    config->on_pushButton_save_clicked();
    EXPECT_EQ(SettingParams::Instance().m_timing_ce_interval_ms, 300);
    SettingParams::Instance().m_timing_ce_interval_ms = 350;
}

TEST_F(AppConfigTest, EditorsAreACheckBoxASpinBoxAndALineEdit)
{
    EXPECT_NE(qobject_cast<QCheckBox*>(Editor("ASK", "Signal Reverse")), nullptr);
    EXPECT_NE(qobject_cast<QCheckBox*>(Editor("Common", "Default Polarity")), nullptr);
    auto* spin = qobject_cast<QSpinBox*>(Editor("ASK", "DAC Value"));
    ASSERT_NE(spin, nullptr);
    // No row but the checked ones has a limit.
    EXPECT_EQ(spin->minimum(), INT_MIN);
    EXPECT_EQ(spin->maximum(), INT_MAX);
    EXPECT_NE(qobject_cast<QLineEdit*>(Editor("Save Path", "Data Save Path")), nullptr);
}

TEST_F(AppConfigTest, SavingWritesEveryRowIntoTheFile)
{
    QSignalSpy saved(config.get(), &QAppConfig::signals_QAppSave);
    QTemporaryDir dir;
    const QString path = dir.path() + QString::fromUtf8("/Messdaten Größe/測定");
    TypeNumber("Frequency", "Min Frequency (Hz)", 100000);
    TypeNumber("Frequency", "Max Frequency (Hz)", 250000);
    TypeNumber("ASK", "Trigger Samples", 3000);
    TypeNumber("ASK", "DAC Value", 2900);  // beyond the slider: not checked
    TypeNumber("Common", "Window Limit Time (min)", 60);
    Toggle("ASK", "Signal Reverse");
    Toggle("ASK", "Capture Data");
    Toggle("FSK", "Capture Data");
    Toggle("ASK", "Second Reader");
    Toggle("FSK", "Second Reader");
    Toggle("Common", "Default Polarity");
    TypeText("Save Path", "Data Save Path", path);
    Save();
    EXPECT_TRUE(messages.empty());
    EXPECT_FALSE(config->isVisible());
    EXPECT_EQ(saved.count(), 1);
    const SettingParams& s = SettingParams::Instance();
    EXPECT_EQ(s.m_min_freq, 100000);
    EXPECT_EQ(s.m_max_freq, 250000);
    EXPECT_EQ(s.savePath, path.toUtf8().toStdString());
    const Json::Value f = OnDisk();
    EXPECT_EQ(f["m_min_freq"].asInt(), 100000);
    EXPECT_EQ(f["m_max_freq"].asInt(), 250000);
    EXPECT_EQ(f["m_ask_trigger_samples"].asInt(), 3000);
    EXPECT_EQ(f["m_dac_value"].asInt(), 2900);
    EXPECT_EQ(f["m_window_time"].asInt(), 60);
    EXPECT_EQ(f["m_ask_signal_reverse"].asInt(), 1);
    EXPECT_EQ(f["m_ask_capture_data"].asInt(), 1);
    EXPECT_EQ(f["m_fsk_capture_data"].asInt(), 1);
    EXPECT_EQ(f["m_ask_second_reader"].asInt(), 0);
    EXPECT_EQ(f["m_fsk_second_reader"].asInt(), 0);
    EXPECT_TRUE(f["m_Polarity"].isBool());
    EXPECT_TRUE(f["m_Polarity"].asBool());
    // The path goes to the file as UTF-8 (the styled writer escapes what
    // lies outside ASCII) and comes back the same.
    EXPECT_EQ(f["savePath"].asString(), path.toUtf8().toStdString());
    AppSettings::ReloadForTest();
    EXPECT_EQ(SettingParams::Instance().savePath, path.toUtf8().toStdString());
    EXPECT_EQ(SettingParams::Instance().m_ask_second_reader, 0);
    EXPECT_EQ(SettingParams::Instance().m_fsk_second_reader, 0);
}

TEST_F(AppConfigTest, EqualMinAndMaxFrequencyAreRefused)
{
    const std::string before = FileText();
    TypeNumber("Frequency", "Min Frequency (Hz)", 110000);
    TypeNumber("Frequency", "Max Frequency (Hz)", 110000);
    QSignalSpy saved(config.get(), &QAppConfig::signals_QAppSave);
    Save();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].kind, MessageKind::Warning);
    EXPECT_EQ(messages[0].title, "Warning");
    EXPECT_EQ(messages[0].text, "Frequency property is Invalid.");
    EXPECT_TRUE(config->isVisible());
    EXPECT_EQ(saved.count(), 0);
    EXPECT_EQ(SettingParams::Instance().m_max_freq, 210000);
    EXPECT_EQ(FileText(), before);
}

TEST_F(AppConfigTest, WindowTimeOutsideFifteenToSixtyIsRefused)
{
    for (int minutes : {14, 61}) {
        messages.clear();
        TypeNumber("Common", "Window Limit Time (min)", minutes);
        Save();
        ASSERT_EQ(messages.size(), 1u) << minutes;
        EXPECT_EQ(messages[0].title, "Warning");
        EXPECT_EQ(messages[0].text, "m_window_time property is 15 - 60 minute.");
        EXPECT_TRUE(config->isVisible());
        EXPECT_EQ(SettingParams::Instance().m_window_time, 15);
        EXPECT_EQ(OnDisk()["m_window_time"].asInt(), 15);
    }
}

TEST_F(AppConfigTest, WindowTimeFifteenAndSixtyAreAccepted)
{
    for (int minutes : {60, 15}) {
        messages.clear();
        config->show();
        TypeNumber("Common", "Window Limit Time (min)", minutes);
        Save();
        EXPECT_TRUE(messages.empty()) << minutes;
        EXPECT_FALSE(config->isVisible());
        EXPECT_EQ(OnDisk()["m_window_time"].asInt(), minutes);
    }
}

TEST_F(AppConfigTest, BadFrequencyAndBadWindowTimeShowOnlyTheFrequencyMessage)
{
    TypeNumber("Frequency", "Min Frequency (Hz)", 300000);
    TypeNumber("Common", "Window Limit Time (min)", 5);
    Save();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].text, "Frequency property is Invalid.");
}

TEST_F(AppConfigTest, SwitchCircleIsCheckedOnlyWhenItHasARow)
{
    // No row: the check passes.
    Save();
    EXPECT_TRUE(messages.empty());
    // With a row in the group "FSK", 512 and 128 pass and nothing else does.
    config->show();
    config->Tree()->AddEditableRow(config->Tree()->Group("FSK"), "Switch Circle", 256);
    Save();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].title, "Warning");
    EXPECT_EQ(messages[0].text, "Fsk switch circle can only be 512 or 128.");
    EXPECT_TRUE(config->isVisible());
    for (int circle : {512, 128}) {
        config->show();
        config->Tree()->SetValue("FSK", "Switch Circle", circle);
        Save();
        EXPECT_EQ(messages.size(), 1u) << circle;
        EXPECT_FALSE(config->isVisible()) << circle;
    }
}

TEST_F(AppConfigTest, CloseHidesAndKeepsTheEditsUntilTheNextRefill)
{
    TypeNumber("ASK", "Trigger Samples", 4444);
    QTest::mouseClick(config->CloseButton(), Qt::LeftButton);
    EXPECT_FALSE(config->isVisible());
    EXPECT_EQ(SettingParams::Instance().m_ask_trigger_samples, 2200);
    EXPECT_EQ(config->Tree()->Value("ASK", "Trigger Samples").toInt(), 4444);
    SettingParams::Instance().savePath = "/somewhere/else";
    emit config->signals_UpdateUI();
    EXPECT_EQ(config->Tree()->Value("ASK", "Trigger Samples").toInt(), 2200);
    EXPECT_EQ(config->Tree()->Value("Save Path", "Data Save Path").toString(), "/somewhere/else");
}

TEST_F(AppConfigTest, RefillReachesTheOpenEditors)
{
    auto* box = qobject_cast<QCheckBox*>(Editor("Common", "Default Polarity"));
    ASSERT_NE(box, nullptr);
    EXPECT_FALSE(box->isChecked());
    SettingParams::Instance().m_Polarity = true;
    config->slot_UpdateUI();
    EXPECT_TRUE(box->isChecked());
}

TEST_F(AppConfigTest, UnwritableSettingsFileKeepsTheRecordAndGoesOn)
{
    // The file's place taken by a folder: the save fails, as the log tells.
    const QString file = QString::fromStdString(AppSettings::Instance().FilePath());
    QFile::remove(file);
    ASSERT_TRUE(QDir().mkpath(file));
    TypeNumber("ASK", "Trigger Samples", 5000);
    QSignalSpy saved(config.get(), &QAppConfig::signals_QAppSave);
    Save();
    EXPECT_TRUE(messages.empty());
    EXPECT_EQ(SettingParams::Instance().m_ask_trigger_samples, 5000);
    EXPECT_EQ(saved.count(), 1);
    QDir(file).removeRecursively();
}

}  // namespace
