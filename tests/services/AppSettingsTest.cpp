#include "services/AppSettings.h"

#include "services/Log.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <cstdlib>
#include <memory>
#include <string>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

std::string ReadAll(const std::string& path)
{
    QFile f(QString::fromStdString(path));
    if (!f.open(QIODevice::ReadOnly))
        return {};
    return f.readAll().toStdString();
}

void WriteAll(const std::string& path, const std::string& bytes)
{
    QFile f(QString::fromStdString(path));
    ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    ASSERT_EQ(f.write(bytes.data(), static_cast<qint64>(bytes.size())), static_cast<qint64>(bytes.size()));
}

struct Values {
    bool polarity = false;
    int askCapture = 0;
    int askReverse = 0;
    int askSecondReader = 1;
    int fskSecondReader = 1;
    int askTrigger = 2200;
    int autoScope = 0;
    int dacLocked = 0;
    int dacManual = 0;
    int dacValue = 1700;
    int fskCapture = 0;
    int maxFreq = 210000;
    int minFreq = 110000;
    int skipVersion = 0;
    int windowTime = 15;
    int paramsVer = 20190713;
    std::string savePath;
};

// The file as JsonCpp's styled writer lays it out: three-space indent, one key
// a line, keys in byte order.
std::string Styled(const Values& v)
{
    return "{\n"
           "   \"m_Polarity\" : " + std::string(v.polarity ? "true" : "false") + ",\n"
           "   \"m_ask_capture_data\" : " + std::to_string(v.askCapture) + ",\n"
           "   \"m_ask_second_reader\" : " + std::to_string(v.askSecondReader) + ",\n"
           "   \"m_ask_signal_reverse\" : " + std::to_string(v.askReverse) + ",\n"
           "   \"m_ask_trigger_samples\" : " + std::to_string(v.askTrigger) + ",\n"
           "   \"m_auto_scope\" : " + std::to_string(v.autoScope) + ",\n"
           "   \"m_dac_locked\" : " + std::to_string(v.dacLocked) + ",\n"
           "   \"m_dac_manual\" : " + std::to_string(v.dacManual) + ",\n"
           "   \"m_dac_value\" : " + std::to_string(v.dacValue) + ",\n"
           "   \"m_fsk_capture_data\" : " + std::to_string(v.fskCapture) + ",\n"
           "   \"m_fsk_second_reader\" : " + std::to_string(v.fskSecondReader) + ",\n"
           "   \"m_max_freq\" : " + std::to_string(v.maxFreq) + ",\n"
           "   \"m_min_freq\" : " + std::to_string(v.minFreq) + ",\n"
           "   \"m_skip_version\" : " + std::to_string(v.skipVersion) + ",\n"
           "   \"m_timing_bit_rate_hz\" : 2000,\n"
           "   \"m_timing_bit_rate_tolerance_pct\" : 4,\n"
           "   \"m_timing_ce_interval_ms\" : 350,\n"
           "   \"m_timing_ce_timeout_ms\" : 1800,\n"
           "   \"m_timing_config_gap_ms\" : 21,\n"
           "   \"m_timing_config_length_ms\" : 170,\n"
           "   \"m_timing_holdoff_max_ms\" : 205,\n"
           "   \"m_timing_holdoff_min_ms\" : 5,\n"
           "   \"m_timing_ping_first_ms\" : 65,\n"
           "   \"m_timing_preamble_max\" : 25,\n"
           "   \"m_timing_preamble_min\" : 11,\n"
           "   \"m_timing_response_ms\" : 10,\n"
           "   \"m_timing_terminate_ms\" : 28,\n"
           "   \"m_window_time\" : " + std::to_string(v.windowTime) + ",\n"
           "   \"params_ver\" : " + std::to_string(v.paramsVer) + ",\n"
           "   \"savePath\" : \"" + v.savePath + "\"\n"
           "}\n";
}

Values Fresh()
{
    Values v;
    v.savePath = AppSettings::DefaultSavePath();
    return v;
}

void ExpectFreshValues(const SettingParams& p)
{
    EXPECT_EQ(p.params_ver, 20190713);
    EXPECT_EQ(p.m_max_freq, 210000);
    EXPECT_EQ(p.m_min_freq, 110000);
    EXPECT_EQ(p.m_ask_signal_reverse, 0);
    EXPECT_EQ(p.m_ask_trigger_samples, 2200);
    EXPECT_EQ(p.m_ask_capture_data, 0);
    EXPECT_EQ(p.m_fsk_capture_data, 0);
    EXPECT_EQ(p.savePath, AppSettings::DefaultSavePath());
    EXPECT_EQ(p.m_skip_version, 0);
    EXPECT_EQ(p.m_auto_scope, 0);
    EXPECT_EQ(p.m_window_time, 15);
    EXPECT_EQ(p.m_dac_value, 1700);
    EXPECT_EQ(p.m_dac_locked, 0);
    EXPECT_EQ(p.m_dac_manual, 0);
    EXPECT_FALSE(p.m_Polarity);
}

// The last n lines of the application log, without their time stamps.
std::vector<std::string> LastLogMessages(size_t n)
{
    const std::string all = ReadAll(Log::Instance().FilePath());
    std::vector<std::string> lines;
    size_t start = 0;
    for (;;) {
        const size_t end = all.find("\r\n", start);
        if (end == std::string::npos)
            break;
        lines.push_back(all.substr(start, end - start));
        start = end + 2;
    }
    std::vector<std::string> out;
    const size_t stampLength = 19;  // "%Y-%m-%d %H-%M-%S"
    for (size_t i = lines.size() >= n ? lines.size() - n : 0; i < lines.size(); ++i)
        out.push_back(lines[i].size() >= stampLength ? lines[i].substr(stampLength) : lines[i]);
    return out;
}

// A settings file in a folder of its own, loaded into a record of its own.
class AppSettingsFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        m_path = m_dir.path().toStdString() + "/setting.txt";
    }

    std::unique_ptr<AppSettings> Load()
    {
        return std::make_unique<AppSettings>(m_path, &m_record);
    }

    std::unique_ptr<AppSettings> LoadText(const std::string& text)
    {
        WriteAll(m_path, text);
        return Load();
    }

    std::string FileText() const { return ReadAll(m_path); }

    // Loads as a user the permission bits apply to: under root, on a thread
    // whose file-system user is "nobody", which drops the override rights.
    void LoadWithoutFileRights()
    {
        if (geteuid() != 0) {
            Load();
            return;
        }
        std::thread worker([this] {
            setfsuid(65534);
            Load();
        });
        worker.join();
    }

    QTemporaryDir m_dir;
    std::string m_path;
    SettingParams m_record;
};

// A current file with every key set to values unlike the defaults.
std::string CurrentFileWith(const std::string& extra)
{
    return "{ \"params_ver\" : 20190713, \"m_max_freq\" : 205000, \"m_min_freq\" : 111000,"
           " \"m_ask_signal_reverse\" : 1, \"m_ask_trigger_samples\" : 3000,"
           " \"m_ask_capture_data\" : 1, \"m_fsk_capture_data\" : 1, \"savePath\" : \"/data/x\","
           " \"m_skip_version\" : 7, \"m_window_time\" : 30, \"m_dac_value\" : 1800,"
           " \"m_dac_locked\" : 1, \"m_dac_manual\" : 1" + extra + " }";
}

}  // namespace

// ---------------------------------------------------------------- first run

TEST_F(AppSettingsFile, FirstRunWritesTheTableOfFreshValuesInStyledForm)
{
    ASSERT_FALSE(QFileInfo::exists(QString::fromStdString(m_path)));
    auto settings = Load();
    ExpectFreshValues(m_record);
    EXPECT_EQ(FileText(), Styled(Fresh()));
}

TEST_F(AppSettingsFile, FirstRunCreatesAMissingConfigFolder)
{
    m_path = m_dir.path().toStdString() + "/a/b/setting.txt";
    auto settings = Load();
    EXPECT_EQ(FileText(), Styled(Fresh()));
}

TEST(AppSettingsInstance, FirstUseLoadsTheConfigFileIntoTheOneRecord)
{
    const char* config = std::getenv("XDG_CONFIG_HOME");
    const char* data = std::getenv("XDG_DATA_HOME");
    ASSERT_NE(config, nullptr);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(AppSettings::DefaultFilePath(), std::string(config) + "/Coilscope/setting.txt");
    EXPECT_EQ(AppSettings::DefaultSavePath(), std::string(data) + "/Coilscope");

    QFile::remove(QString::fromStdString(AppSettings::DefaultFilePath()));
    AppSettings::ReloadForTest();
    AppSettings& settings = AppSettings::Instance();
    EXPECT_EQ(settings.Params(), &SettingParams::Instance());
    EXPECT_EQ(settings.FilePath(), AppSettings::DefaultFilePath());
    ExpectFreshValues(SettingParams::Instance());
    EXPECT_EQ(ReadAll(AppSettings::DefaultFilePath()), Styled(Fresh()));
}

TEST(AppSettingsInstance, SameObjectUntilReleasedThenReloadsTheFile)
{
    AppSettings::ReloadForTest();
    AppSettings* first = &AppSettings::Instance();
    EXPECT_EQ(first, &AppSettings::Instance());

    SettingParams::Instance().m_window_time = 42;
    AppSettings::Instance().save();
    AppSettings::Release();
    SettingParams::Instance().m_window_time = 0;
    EXPECT_EQ(AppSettings::Instance().Params()->m_window_time, 42);
    AppSettings::ReloadForTest();
    EXPECT_EQ(SettingParams::Instance().m_window_time, 42);
}

TEST(AppSettingsInstance, ReleaseParamsRestoresTheConstructionValues)
{
    SettingParams& record = SettingParams::Instance();
    record.m_dac_max = 5;
    record.m_dac_min = 6;
    record.m_max_freq = 7;
    record.savePath = "x";
    record.detectedPolarity = -1;
    record.deviceRecord[10] = 0x55;
    AppSettings::ReleaseParams();
    EXPECT_EQ(&record, &SettingParams::Instance());
    EXPECT_EQ(record.m_dac_max, 2700);
    EXPECT_EQ(record.m_dac_min, 1100);
    EXPECT_EQ(record.m_max_freq, 0);
    EXPECT_TRUE(record.savePath.empty());
    EXPECT_EQ(record.detectedPolarity.load(), 0);
    EXPECT_EQ(record.deviceRecord[10], 0);
    AppSettings::ReloadForTest();
}

// ---------------------------------------------------------------- versions

TEST_F(AppSettingsFile, OutdatedVersionResetsDefaultsButPassesDacAndPolarityOn)
{
    auto settings = LoadText("{ \"params_ver\" : 20190712, \"m_max_freq\" : 205000, \"m_min_freq\" : 111000,"
                             " \"m_ask_signal_reverse\" : 1, \"m_ask_trigger_samples\" : 3000,"
                             " \"m_ask_capture_data\" : 1, \"m_fsk_capture_data\" : 1,"
                             " \"savePath\" : \"/data/x\", \"m_skip_version\" : 7, \"m_window_time\" : 30,"
                             " \"m_dac_value\" : 1800, \"m_dac_locked\" : 1, \"m_dac_manual\" : 1,"
                             " \"m_Polarity\" : true }");
    EXPECT_EQ(m_record.params_ver, 20190713);
    EXPECT_EQ(m_record.m_max_freq, 210000);
    EXPECT_EQ(m_record.m_min_freq, 110000);
    EXPECT_EQ(m_record.m_ask_signal_reverse, 0);
    EXPECT_EQ(m_record.m_ask_trigger_samples, 2200);
    EXPECT_EQ(m_record.m_ask_capture_data, 0);
    EXPECT_EQ(m_record.m_fsk_capture_data, 0);
    EXPECT_EQ(m_record.savePath, AppSettings::DefaultSavePath());
    EXPECT_EQ(m_record.m_skip_version, 0);
    EXPECT_EQ(m_record.m_window_time, 15);
    EXPECT_EQ(m_record.m_dac_value, 1700);
    EXPECT_EQ(m_record.m_dac_locked, 1);
    EXPECT_EQ(m_record.m_dac_manual, 1);
    EXPECT_TRUE(m_record.m_Polarity);

    Values expected = Fresh();
    expected.dacLocked = 1;
    expected.dacManual = 1;
    expected.polarity = true;
    EXPECT_EQ(FileText(), Styled(expected));
}

TEST_F(AppSettingsFile, CurrentVersionFileIsTakenAsItStandsAndNotRewritten)
{
    const std::string text = CurrentFileWith(", \"m_Polarity\" : true");
    auto settings = LoadText(text);
    EXPECT_EQ(m_record.params_ver, 20190713);
    EXPECT_EQ(m_record.m_max_freq, 205000);
    EXPECT_EQ(m_record.m_min_freq, 111000);
    EXPECT_EQ(m_record.m_ask_signal_reverse, 1);
    EXPECT_EQ(m_record.m_ask_trigger_samples, 3000);
    EXPECT_EQ(m_record.m_ask_capture_data, 1);
    EXPECT_EQ(m_record.m_fsk_capture_data, 1);
    EXPECT_EQ(m_record.savePath, "/data/x");
    EXPECT_EQ(m_record.m_skip_version, 7);
    EXPECT_EQ(m_record.m_window_time, 30);
    EXPECT_EQ(m_record.m_dac_value, 1800);
    EXPECT_EQ(m_record.m_dac_locked, 1);
    EXPECT_EQ(m_record.m_dac_manual, 1);
    EXPECT_TRUE(m_record.m_Polarity);
    EXPECT_EQ(FileText(), text);
}

TEST_F(AppSettingsFile, NewerVersionIsTakenAsItStands)
{
    const std::string text = "{ \"params_ver\" : 20300101, \"m_dac_value\" : 1234 }";
    auto settings = LoadText(text);
    EXPECT_EQ(m_record.params_ver, 20300101);
    EXPECT_EQ(m_record.m_dac_value, 1234);
    EXPECT_EQ(FileText(), text);
}

TEST_F(AppSettingsFile, CurrentVersionWithOddValuesIsTakenAsItStands)
{
    const std::string text = "{ \"params_ver\" : 20190713, \"m_max_freq\" : 1000, \"m_min_freq\" : 900000,"
                             " \"m_ask_signal_reverse\" : 7, \"m_ask_trigger_samples\" : -5,"
                             " \"m_ask_capture_data\" : 2, \"m_fsk_capture_data\" : -1,"
                             " \"savePath\" : \"\", \"m_skip_version\" : -99, \"m_window_time\" : 0,"
                             " \"m_dac_value\" : 2147483647, \"m_dac_locked\" : -2147483648,"
                             " \"m_dac_manual\" : 3 }";
    auto settings = LoadText(text);
    EXPECT_EQ(m_record.m_max_freq, 1000);
    EXPECT_EQ(m_record.m_min_freq, 900000);
    EXPECT_EQ(m_record.m_ask_signal_reverse, 7);
    EXPECT_EQ(m_record.m_ask_trigger_samples, -5);
    EXPECT_EQ(m_record.m_ask_capture_data, 2);
    EXPECT_EQ(m_record.m_fsk_capture_data, -1);
    EXPECT_EQ(m_record.savePath, "");
    EXPECT_EQ(m_record.m_skip_version, -99);
    EXPECT_EQ(m_record.m_window_time, 0);
    EXPECT_EQ(m_record.m_dac_value, 2147483647);
    EXPECT_EQ(m_record.m_dac_locked, -2147483648LL);
    EXPECT_EQ(m_record.m_dac_manual, 3);
    EXPECT_EQ(FileText(), text);
}

TEST_F(AppSettingsFile, WindowTimeOf500WithCurrentVersionIsAccepted)
{
    const std::string text = "{ \"params_ver\" : 20190713, \"m_window_time\" : 500 }";
    auto settings = LoadText(text);
    EXPECT_EQ(m_record.m_window_time, 500);
    EXPECT_EQ(FileText(), text);
}

TEST_F(AppSettingsFile, MissingVersionGivesDefaults)
{
    auto settings = LoadText("{ \"m_max_freq\" : 205000, \"m_dac_locked\" : 1 }");
    EXPECT_EQ(m_record.m_max_freq, 210000);
    EXPECT_EQ(m_record.m_dac_locked, 1);
    Values expected = Fresh();
    expected.dacLocked = 1;
    EXPECT_EQ(FileText(), Styled(expected));
}

// ---------------------------------------------------------------- m_auto_scope

TEST_F(AppSettingsFile, AutoScopeOfOneWithCurrentVersionLeavesFieldZeroAndSaveWritesZero)
{
    const std::string text = CurrentFileWith(", \"m_auto_scope\" : 1");
    auto settings = LoadText(text);
    EXPECT_EQ(m_record.m_auto_scope, 0);
    EXPECT_EQ(m_record.params_ver, 20190713);
    EXPECT_EQ(FileText(), text);

    settings->save();
    const std::string saved = FileText();
    EXPECT_NE(saved.find("   \"m_auto_scope\" : 0,\n"), std::string::npos) << saved;
}

TEST_F(AppSettingsFile, AutoScopeStandsAsVersionWhenParamsVerIsMissing)
{
    // A small value sends the file to the defaults.
    auto settings = LoadText("{ \"m_auto_scope\" : 1, \"m_max_freq\" : 205000 }");
    EXPECT_EQ(m_record.params_ver, 20190713);
    EXPECT_EQ(m_record.m_max_freq, 210000);
    EXPECT_EQ(FileText(), Styled(Fresh()));
}

TEST_F(AppSettingsFile, LargeAutoScopeWithoutParamsVerCountsAsCurrentVersion)
{
    const std::string text = "{ \"m_auto_scope\" : 20190713, \"m_max_freq\" : 205000 }";
    auto settings = LoadText(text);
    EXPECT_EQ(m_record.params_ver, 20190713);
    EXPECT_EQ(m_record.m_auto_scope, 0);
    EXPECT_EQ(m_record.m_max_freq, 205000);
    EXPECT_EQ(FileText(), text);
}

TEST_F(AppSettingsFile, ParamsVerIsReadAfterAutoScope)
{
    SettingParams record;
    ASSERT_TRUE(AppSettings::Parse("{ \"params_ver\" : 5, \"m_auto_scope\" : 20190713 }", record));
    EXPECT_EQ(record.params_ver, 5);
    EXPECT_EQ(record.m_auto_scope, 0);
}

// ---------------------------------------------------------------- m_dac_manual

TEST_F(AppSettingsFile, DacManualWithoutDacLockedStaysZero)
{
    auto settings = LoadText("{ \"params_ver\" : 20190713, \"m_dac_manual\" : 1 }");
    EXPECT_EQ(m_record.m_dac_manual, 0);
    EXPECT_EQ(m_record.m_dac_locked, 0);
}

TEST_F(AppSettingsFile, DacManualIsReadWhenDacLockedIsAnInteger)
{
    auto settings = LoadText("{ \"params_ver\" : 20190713, \"m_dac_locked\" : 0, \"m_dac_manual\" : 1 }");
    EXPECT_EQ(m_record.m_dac_manual, 1);
    EXPECT_EQ(m_record.m_dac_locked, 0);
}

TEST_F(AppSettingsFile, DacManualIsIgnoredWhenDacLockedIsNotAnInteger)
{
    auto settings = LoadText("{ \"params_ver\" : 20190713, \"m_dac_locked\" : true, \"m_dac_manual\" : 1 }");
    EXPECT_EQ(m_record.m_dac_manual, 0);
    EXPECT_EQ(m_record.m_dac_locked, 0);
}

TEST_F(AppSettingsFile, DacManualKeepsItsValueWhenItIsNotAnInteger)
{
    m_record.m_dac_manual = 1;
    auto settings = LoadText("{ \"params_ver\" : 20190713, \"m_dac_locked\" : 1, \"m_dac_manual\" : \"0\" }");
    EXPECT_EQ(m_record.m_dac_manual, 1);
    EXPECT_EQ(m_record.m_dac_locked, 1);
}

// ---------------------------------------------------------------- m_Polarity

TEST_F(AppSettingsFile, PolarityAsNumberBecomesFalse)
{
    m_record.m_Polarity = true;
    auto settings = LoadText("{ \"params_ver\" : 20190713, \"m_Polarity\" : 1 }");
    EXPECT_FALSE(m_record.m_Polarity);
}

TEST_F(AppSettingsFile, PolarityMissingOrNullBecomesFalse)
{
    m_record.m_Polarity = true;
    auto settings = LoadText("{ \"params_ver\" : 20190713 }");
    EXPECT_FALSE(m_record.m_Polarity);

    m_record.m_Polarity = true;
    settings = LoadText("{ \"params_ver\" : 20190713, \"m_Polarity\" : null }");
    EXPECT_FALSE(m_record.m_Polarity);
}

TEST_F(AppSettingsFile, PolarityTrueIsTaken)
{
    auto settings = LoadText("{ \"params_ver\" : 20190713, \"m_Polarity\" : true }");
    EXPECT_TRUE(m_record.m_Polarity);
}

// ---------------------------------------------------------------- types

TEST_F(AppSettingsFile, RealWhereIntegerIsExpectedIsIgnored)
{
    m_record.m_max_freq = 11;
    m_record.m_dac_value = 12;
    m_record.m_window_time = 13;
    auto settings = LoadText("{ \"params_ver\" : 20190713, \"m_max_freq\" : 200000.0,"
                             " \"m_dac_value\" : 1.5, \"m_window_time\" : 2e1, \"m_min_freq\" : 100000 }");
    EXPECT_EQ(m_record.m_max_freq, 11);
    EXPECT_EQ(m_record.m_dac_value, 12);
    EXPECT_EQ(m_record.m_window_time, 13);
    EXPECT_EQ(m_record.m_min_freq, 100000);
}

TEST_F(AppSettingsFile, RealParamsVerCountsAsNoVersion)
{
    auto settings = LoadText("{ \"params_ver\" : 20190713.0, \"m_max_freq\" : 205000 }");
    EXPECT_EQ(m_record.m_max_freq, 210000);
    EXPECT_EQ(FileText(), Styled(Fresh()));
}

TEST_F(AppSettingsFile, SavePathNotAStringIsIgnored)
{
    m_record.savePath = "/kept";
    auto settings = LoadText("{ \"params_ver\" : 20190713, \"savePath\" : 5 }");
    EXPECT_EQ(m_record.savePath, "/kept");
    settings = LoadText("{ \"params_ver\" : 20190713, \"savePath\" : [\"/a\"] }");
    EXPECT_EQ(m_record.savePath, "/kept");
    settings = LoadText("{ \"params_ver\" : 20190713, \"savePath\" : null }");
    EXPECT_EQ(m_record.savePath, "/kept");
}

TEST_F(AppSettingsFile, IntegerKeysOfOtherTypesKeepTheirValue)
{
    m_record.m_skip_version = 3;
    m_record.m_ask_capture_data = 1;
    m_record.m_fsk_capture_data = 1;
    auto settings = LoadText("{ \"params_ver\" : 20190713, \"m_skip_version\" : \"9\","
                             " \"m_ask_capture_data\" : false, \"m_fsk_capture_data\" : null }");
    EXPECT_EQ(m_record.m_skip_version, 3);
    EXPECT_EQ(m_record.m_ask_capture_data, 1);
    EXPECT_EQ(m_record.m_fsk_capture_data, 1);
}

TEST_F(AppSettingsFile, IntegersOutside32BitsAreIgnored)
{
    m_record.m_max_freq = 1;
    m_record.m_min_freq = 2;
    m_record.m_dac_value = 3;
    auto settings = LoadText("{ \"params_ver\" : 20190713, \"m_max_freq\" : 2147483648,"
                             " \"m_min_freq\" : -2147483649, \"m_dac_value\" : 99999999999999999999999 }");
    EXPECT_EQ(m_record.m_max_freq, 1);
    EXPECT_EQ(m_record.m_min_freq, 2);
    EXPECT_EQ(m_record.m_dac_value, 3);
}

// ---------------------------------------------------------------- bad files

TEST_F(AppSettingsFile, EmptyFileGivesDefaultsAndARewrittenFile)
{
    auto settings = LoadText("");
    ExpectFreshValues(m_record);
    EXPECT_EQ(FileText(), Styled(Fresh()));
}

TEST_F(AppSettingsFile, GarbageFileGivesDefaultsAndARewrittenFile)
{
    static const char garbage[] = "\x01\xff{{garbage\x80 \"params_ver\" : 20190713";
    auto settings = LoadText(std::string(garbage, sizeof garbage - 1));
    ExpectFreshValues(m_record);
    EXPECT_EQ(FileText(), Styled(Fresh()));
}

TEST_F(AppSettingsFile, TruncatedFileGivesDefaultsAndARewrittenFile)
{
    const std::string whole = CurrentFileWith("");
    auto settings = LoadText(whole.substr(0, whole.size() / 2));
    ExpectFreshValues(m_record);
    EXPECT_EQ(FileText(), Styled(Fresh()));
}

TEST_F(AppSettingsFile, UnreadableFileGivesDefaultsAndARewrittenFile)
{
    // Writable by anyone, readable by no one.
    WriteAll(m_path, CurrentFileWith(""));
    ASSERT_EQ(chmod(m_path.c_str(), S_IWUSR | S_IWGRP | S_IWOTH), 0);
    ASSERT_EQ(chmod(m_dir.path().toLocal8Bit().constData(), S_IRWXU | S_IRWXG | S_IRWXO), 0);
    LoadWithoutFileRights();
    ExpectFreshValues(m_record);
    ASSERT_EQ(chmod(m_path.c_str(), S_IRUSR | S_IWUSR), 0);
    EXPECT_EQ(FileText(), Styled(Fresh()));
}

TEST_F(AppSettingsFile, OversizedFileCountsAsUnreadable)
{
    std::string text = CurrentFileWith("");
    text.append(AppSettings::kMaxFileBytes, ' ');
    auto settings = LoadText(text);
    ExpectFreshValues(m_record);
    EXPECT_EQ(FileText(), Styled(Fresh()));
}

TEST_F(AppSettingsFile, NonObjectDocumentGivesDefaults)
{
    for (const char* text : {"[20190713]", "20190713", "\"params_ver\"", "null", "true"}) {
        SettingParams record;
        std::unique_ptr<AppSettings> settings;
        WriteAll(m_path, text);
        settings = std::make_unique<AppSettings>(m_path, &record);
        EXPECT_EQ(record.m_max_freq, 210000) << text;
        EXPECT_EQ(FileText(), Styled(Fresh())) << text;
    }
}

TEST_F(AppSettingsFile, DeeplyNestedFileGivesDefaults)
{
    auto settings = LoadText("{ \"params_ver\" : 20190713, \"x\" : " + std::string(5000, '[') + " }");
    ExpectFreshValues(m_record);
    EXPECT_EQ(FileText(), Styled(Fresh()));
}

TEST_F(AppSettingsFile, TextAfterANulByteIsNotParsed)
{
    const std::string good = "{ \"params_ver\" : 20190713, \"m_dac_value\" : 1234 }";
    auto settings = LoadText(good + std::string(1, '\0') + "garbage");
    EXPECT_EQ(m_record.m_dac_value, 1234);

    SettingParams record;
    std::string cut = "{ \"params_ver\" : 2019";
    cut += '\0';
    cut += "0713 }";
    WriteAll(m_path, cut);
    settings = std::make_unique<AppSettings>(m_path, &record);
    EXPECT_EQ(record.params_ver, 20190713);
    EXPECT_EQ(FileText(), Styled(Fresh()));
}

TEST_F(AppSettingsFile, FailedParseLeavesTheRecordAsItWas)
{
    SettingParams record;
    record.m_max_freq = 5;
    record.m_Polarity = true;
    EXPECT_FALSE(AppSettings::Parse("{ \"m_max_freq\" : 7, ", record));
    EXPECT_FALSE(AppSettings::Parse(nullptr, record));
    EXPECT_EQ(record.m_max_freq, 5);
    EXPECT_TRUE(record.m_Polarity);
}

// ---------------------------------------------------------------- save

TEST_F(AppSettingsFile, SaveWritesEveryKeyInByteOrderAndReloadsTheSame)
{
    auto settings = Load();
    m_record.m_Polarity = true;
    m_record.m_ask_capture_data = 1;
    m_record.m_ask_signal_reverse = 1;
    m_record.m_ask_trigger_samples = 4400;
    m_record.m_auto_scope = 3;
    m_record.m_dac_locked = 1;
    m_record.m_dac_manual = 1;
    m_record.m_dac_value = 1900;
    m_record.m_fsk_capture_data = 1;
    m_record.m_max_freq = 200000;
    m_record.m_min_freq = 100000;
    m_record.m_skip_version = 9;
    m_record.m_window_time = 60;
    m_record.savePath = "/srv/caps";
    settings->save();

    Values v;
    v.polarity = true;
    v.askCapture = 1;
    v.askReverse = 1;
    v.askTrigger = 4400;
    v.autoScope = 3;
    v.dacLocked = 1;
    v.dacManual = 1;
    v.dacValue = 1900;
    v.fskCapture = 1;
    v.maxFreq = 200000;
    v.minFreq = 100000;
    v.skipVersion = 9;
    v.windowTime = 60;
    v.savePath = "/srv/caps";
    EXPECT_EQ(FileText(), Styled(v));

    SettingParams again;
    AppSettings reload(m_path, &again);
    EXPECT_EQ(again.m_ask_trigger_samples, 4400);
    EXPECT_EQ(again.m_auto_scope, 0);  // never loaded
    EXPECT_EQ(again.m_dac_manual, 1);
    EXPECT_EQ(again.m_window_time, 60);
    EXPECT_EQ(again.savePath, "/srv/caps");
    EXPECT_TRUE(again.m_Polarity);
}

TEST_F(AppSettingsFile, Utf8SavePathSurvivesSaveAndLoad)
{
    auto settings = Load();
    m_record.savePath = "/home/j\xc3\xbcrgen/\"caps\"\\x";
    settings->save();
    SettingParams again;
    AppSettings reload(m_path, &again);
    EXPECT_EQ(again.savePath, m_record.savePath);
}

TEST_F(AppSettingsFile, FailedSaveLogsTwoLinesAndKeepsTheRecord)
{
    // A regular file where the folder should be: nothing can be created below it.
    const std::string blocker = m_dir.path().toStdString() + "/blocker";
    WriteAll(blocker, "x");
    m_path = blocker + "/setting.txt";

    auto settings = Load();
    ExpectFreshValues(m_record);
    std::vector<std::string> lines = LastLogMessages(2);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "Save fail, may be dir is readonly.");
    EXPECT_EQ(lines[1], m_path);

    m_record.m_dac_value = 2000;
    settings->save();
    EXPECT_EQ(m_record.m_dac_value, 2000);
    lines = LastLogMessages(2);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "Save fail, may be dir is readonly.");
    EXPECT_EQ(lines[1], m_path);
}

TEST_F(AppSettingsFile, SettingsPathThatIsAFolderGivesDefaultsAndLogsTheFailedSave)
{
    ASSERT_TRUE(QDir().mkpath(QString::fromStdString(m_path)));
    auto settings = Load();
    ExpectFreshValues(m_record);
    const std::vector<std::string> lines = LastLogMessages(2);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "Save fail, may be dir is readonly.");
    EXPECT_EQ(lines[1], m_path);
}

// ---------------------------------------------------------------- helpers

TEST_F(AppSettingsFile, SavePathSlashAppendsASlash)
{
    auto settings = Load();
    EXPECT_EQ(settings->SavePathSlash(), AppSettings::DefaultSavePath() + "/");
    m_record.savePath = "/srv/caps";
    EXPECT_EQ(settings->SavePathSlash(), "/srv/caps/");
}

TEST_F(AppSettingsFile, SessionFoldersAreNamedByLocalTimeAndCreated)
{
    auto settings = Load();
    m_record.savePath = m_dir.path().toStdString() + "/caps";
    std::tm when{};
    when.tm_year = 2024 - 1900;
    when.tm_mon = 2;
    when.tm_mday = 5;
    when.tm_hour = 7;
    when.tm_min = 8;
    when.tm_sec = 9;
    const std::string folder = settings->MakeSessionFolders(when);
    const std::string expected = m_record.savePath + "/2024_03_05 07_08_09/";
    EXPECT_EQ(folder, expected);
    EXPECT_EQ(m_record.logPath, expected);
    EXPECT_EQ(m_record.eventPath, expected);
    EXPECT_EQ(m_record.capturePath, expected);
    EXPECT_TRUE(QFileInfo(QString::fromStdString(expected)).isDir());
    // A second call for the same second finds the folder already there.
    EXPECT_EQ(settings->MakeSessionFolders(when), expected);
}

TEST_F(AppSettingsFile, SessionFoldersForNowLieUnderSavePath)
{
    auto settings = Load();
    m_record.savePath = m_dir.path().toStdString() + "/now";
    const std::string folder = settings->MakeSessionFolders();
    ASSERT_EQ(folder.size(), m_record.savePath.size() + 1 + 19 + 1);
    EXPECT_EQ(folder.compare(0, m_record.savePath.size() + 1, m_record.savePath + "/"), 0);
    EXPECT_EQ(folder.back(), '/');
    EXPECT_TRUE(QFileInfo(QString::fromStdString(folder)).isDir());
}

TEST(AppSettingsTimeText, MicrosecondsAreShownWithinTheDay)
{
    EXPECT_EQ(AppSettings::TimeText(0), "00:00:00.000000");
    EXPECT_EQ(AppSettings::TimeText(3723000004LL), "01:02:03.000004");
    EXPECT_EQ(AppSettings::TimeText(86400LL * 1000000 + 5), "00:00:00.000005");
}

// ------------------------------------------------------ m_ask_second_reader

TEST_F(AppSettingsFile, SecondAskReaderIsOnWhenTheFileDoesNotSay)
{
    auto settings = LoadText("{ \"params_ver\" : 20190713, \"m_max_freq\" : 205000 }");
    EXPECT_EQ(m_record.m_ask_second_reader, 1);
    EXPECT_EQ(m_record.m_max_freq, 205000);
}

TEST_F(AppSettingsFile, SecondAskReaderTurnedOffStaysOffAndIsWrittenBack)
{
    auto settings = LoadText("{ \"params_ver\" : 20190713, \"m_ask_second_reader\" : 0 }");
    EXPECT_EQ(m_record.m_ask_second_reader, 0);
    const std::string text = AppSettings::Serialize(m_record);
    EXPECT_NE(text.find("\"m_ask_second_reader\" : 0"), std::string::npos) << text;
    SettingParams again;
    ASSERT_TRUE(AppSettings::Parse(text.c_str(), again));
    EXPECT_EQ(again.m_ask_second_reader, 0);
}

// ------------------------------------------------------ m_fsk_second_reader

TEST_F(AppSettingsFile, SecondFskReaderIsOnWhenTheFileDoesNotSay)
{
    auto settings = LoadText("{ \"params_ver\" : 20190713, \"m_ask_second_reader\" : 0 }");
    EXPECT_EQ(m_record.m_fsk_second_reader, 1);
    EXPECT_EQ(m_record.m_ask_second_reader, 0);
}

TEST_F(AppSettingsFile, SecondFskReaderTurnedOffStaysOffAndIsWrittenBack)
{
    auto settings = LoadText("{ \"params_ver\" : 20190713, \"m_fsk_second_reader\" : 0 }");
    EXPECT_EQ(m_record.m_fsk_second_reader, 0);
    EXPECT_EQ(m_record.m_ask_second_reader, 1);
    const std::string text = AppSettings::Serialize(m_record);
    EXPECT_NE(text.find("\"m_fsk_second_reader\" : 0"), std::string::npos) << text;
    SettingParams again;
    ASSERT_TRUE(AppSettings::Parse(text.c_str(), again));
    EXPECT_EQ(again.m_fsk_second_reader, 0);
}

// ------------------------------------------------------ m_timing_*

TEST_F(AppSettingsFile, TimingLimitsHaveTheirDefaultsWhenTheFileDoesNotSay)
{
    auto settings = LoadText("{ \"params_ver\" : 20190713, \"m_max_freq\" : 205000 }");
    EXPECT_EQ(m_record.m_timing_ping_first_ms, 65);
    EXPECT_EQ(m_record.m_timing_ce_interval_ms, 350);
    EXPECT_EQ(m_record.m_timing_ce_timeout_ms, 1800);
    EXPECT_EQ(m_record.m_timing_bit_rate_tolerance_pct, 4);
    EXPECT_EQ(m_record.m_timing_preamble_min, 11);
}

TEST_F(AppSettingsFile, ATimingLimitIsReadAndWrittenBack)
{
    auto settings = LoadText("{ \"params_ver\" : 20190713, \"m_timing_ce_interval_ms\" : 300 }");
    EXPECT_EQ(m_record.m_timing_ce_interval_ms, 300);
    EXPECT_EQ(m_record.m_timing_terminate_ms, 28);
    const std::string text = AppSettings::Serialize(m_record);
    EXPECT_NE(text.find("\"m_timing_ce_interval_ms\" : 300"), std::string::npos) << text;
    SettingParams again;
    ASSERT_TRUE(AppSettings::Parse(text.c_str(), again));
    EXPECT_EQ(again.m_timing_ce_interval_ms, 300);
}
