#include "services/AppSettings.h"

#include "common/TimeText.h"
#include "services/Log.h"

#include <json/json.h>

#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

namespace {

AppSettings* g_instance = nullptr;

// The member of an object, or null when it is missing.
const Json::Value* Member(const Json::Value& root, const char* key)
{
    return root.find(key, key + std::strlen(key));
}

// A JSON integer that fits 32 bits; a real, even an integral one, does not count.
bool IsInteger(const Json::Value* v)
{
    return v && (v->type() == Json::intValue || v->type() == Json::uintValue) && v->isInt();
}

void TakeInt(const Json::Value& root, const char* key, int32_t& field)
{
    const Json::Value* v = Member(root, key);
    if (IsInteger(v))
        field = v->asInt();
}

// The timing checker's limits: key, field and default.
struct TimingKey {
    const char* key;
    int32_t SettingParams::*field;
    int32_t fallback;
};
const TimingKey kTimingKeys[] = {
    {"m_timing_ping_first_ms", &SettingParams::m_timing_ping_first_ms, 65},
    {"m_timing_config_gap_ms", &SettingParams::m_timing_config_gap_ms, 21},
    {"m_timing_config_length_ms", &SettingParams::m_timing_config_length_ms, 170},
    {"m_timing_ce_interval_ms", &SettingParams::m_timing_ce_interval_ms, 350},
    {"m_timing_ce_timeout_ms", &SettingParams::m_timing_ce_timeout_ms, 1800},
    {"m_timing_holdoff_min_ms", &SettingParams::m_timing_holdoff_min_ms, 5},
    {"m_timing_holdoff_max_ms", &SettingParams::m_timing_holdoff_max_ms, 205},
    {"m_timing_bit_rate_hz", &SettingParams::m_timing_bit_rate_hz, 2000},
    {"m_timing_bit_rate_tolerance_pct", &SettingParams::m_timing_bit_rate_tolerance_pct, 4},
    {"m_timing_preamble_min", &SettingParams::m_timing_preamble_min, 11},
    {"m_timing_preamble_max", &SettingParams::m_timing_preamble_max, 25},
    {"m_timing_response_ms", &SettingParams::m_timing_response_ms, 10},
    {"m_timing_terminate_ms", &SettingParams::m_timing_terminate_ms, 28},
};

// Reads the whole file. A missing, empty, unreadable or oversized file gives
// false: there is no buffer.
bool ReadWholeFile(const std::string& path, std::string& buffer)
{
    buffer.clear();
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (!file)
        return false;
    char chunk[4096];
    bool ok = true;
    for (;;) {
        const size_t n = std::fread(chunk, 1, sizeof chunk, file);
        if (n > 0)
            buffer.append(chunk, n);
        if (buffer.size() > AppSettings::kMaxFileBytes) {
            ok = false;
            break;
        }
        if (n < sizeof chunk) {
            ok = !std::ferror(file);
            break;
        }
    }
    std::fclose(file);
    if (!ok || buffer.empty()) {
        buffer.clear();
        return false;
    }
    return true;
}

}  // namespace

AppSettings& AppSettings::Instance()
{
    if (!g_instance) {
        SettingParams& record = SettingParams::Instance();
        g_instance = new AppSettings(DefaultFilePath(), &record);
        g_instance->m_params = &SettingParams::Instance();
    }
    return *g_instance;
}

void AppSettings::Release()
{
    delete g_instance;
    g_instance = nullptr;
}

void AppSettings::ReleaseParams()
{
    SettingParams& record = SettingParams::Instance();
    record.~SettingParams();
    new (&record) SettingParams();
}

void AppSettings::ReloadForTest()
{
    Release();
    ReleaseParams();
    Instance();
}

AppSettings::AppSettings(std::string filePath, SettingParams* params)
    : m_filePath(std::move(filePath)), m_params(params)
{
    load();
}

std::string AppSettings::DefaultFilePath()
{
    const QString base = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation);
    return (base + QStringLiteral("/Coilscope/setting.txt")).toStdString();
}

std::string AppSettings::DefaultSavePath()
{
    const QString base = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    return (base + QStringLiteral("/Coilscope")).toStdString();
}

void AppSettings::load()
{
    std::string buffer;
    // std::string keeps its bytes NUL-terminated, so the parser gets a C string.
    const bool haveBuffer = ReadWholeFile(m_filePath, buffer);
    if (haveBuffer)
        Parse(buffer.c_str(), *m_params);
    if (!haveBuffer || m_params->params_ver < kParamsVersion)
        applyDefaults();
}

bool AppSettings::Parse(const char* text, SettingParams& p)
{
    if (!text)
        return false;
    Json::Value root;
    try {
        Json::Reader reader;
        if (!reader.parse(std::string(text), root))
            return false;
    } catch (const std::exception&) {
        // The reader gives up on too deep a nesting by throwing.
        return false;
    }
    if (!root.isObject())
        return false;

    // The value of "m_auto_scope" goes into params_ver: the field m_auto_scope
    // is never loaded, and a file without "params_ver" is versioned by it.
    TakeInt(root, "m_auto_scope", p.params_ver);
    TakeInt(root, "params_ver", p.params_ver);
    TakeInt(root, "m_max_freq", p.m_max_freq);
    TakeInt(root, "m_min_freq", p.m_min_freq);
    TakeInt(root, "m_ask_signal_reverse", p.m_ask_signal_reverse);
    TakeInt(root, "m_ask_trigger_samples", p.m_ask_trigger_samples);
    TakeInt(root, "m_ask_capture_data", p.m_ask_capture_data);
    TakeInt(root, "m_fsk_capture_data", p.m_fsk_capture_data);
    TakeInt(root, "m_ask_second_reader", p.m_ask_second_reader);
    TakeInt(root, "m_fsk_second_reader", p.m_fsk_second_reader);
    for (const TimingKey& k : kTimingKeys)
        TakeInt(root, k.key, p.*k.field);

    const Json::Value* savePath = Member(root, "savePath");
    if (savePath && savePath->type() == Json::stringValue)
        p.savePath = savePath->asString();

    TakeInt(root, "m_window_time", p.m_window_time);
    TakeInt(root, "m_dac_value", p.m_dac_value);
    TakeInt(root, "m_dac_locked", p.m_dac_locked);
    // m_dac_manual is taken only when "m_dac_locked" is a present integer.
    if (IsInteger(Member(root, "m_dac_locked")))
        TakeInt(root, "m_dac_manual", p.m_dac_manual);
    TakeInt(root, "m_skip_version", p.m_skip_version);

    // Unlike every other key, a missing or mistyped m_Polarity clears the field.
    const Json::Value* polarity = Member(root, "m_Polarity");
    p.m_Polarity = polarity && polarity->type() == Json::booleanValue && polarity->asBool();
    return true;
}

void AppSettings::SetDefaults(SettingParams& p, const std::string& savePath)
{
    // m_dac_locked, m_dac_manual and m_Polarity are passed on as they are.
    p.params_ver = kParamsVersion;
    p.m_min_freq = 110000;
    p.m_max_freq = 210000;
    p.m_ask_signal_reverse = 0;
    p.m_ask_trigger_samples = 2200;
    p.m_ask_capture_data = 0;
    p.m_fsk_capture_data = 0;
    p.m_ask_second_reader = 1;
    p.m_fsk_second_reader = 1;
    for (const TimingKey& k : kTimingKeys)
        p.*k.field = k.fallback;
    p.m_dac_value = 1700;
    p.m_auto_scope = 0;
    p.savePath = savePath;
    p.m_window_time = 15;
    p.m_skip_version = 0;
}

void AppSettings::applyDefaults()
{
    SetDefaults(*m_params, DefaultSavePath());
    save();
}

std::string AppSettings::Serialize(const SettingParams& p)
{
    Json::Value root(Json::objectValue);
    root["params_ver"] = Json::Int(p.params_ver);
    root["m_max_freq"] = Json::Int(p.m_max_freq);
    root["m_min_freq"] = Json::Int(p.m_min_freq);
    root["m_ask_signal_reverse"] = Json::Int(p.m_ask_signal_reverse);
    root["m_ask_trigger_samples"] = Json::Int(p.m_ask_trigger_samples);
    root["m_ask_capture_data"] = Json::Int(p.m_ask_capture_data);
    root["m_fsk_capture_data"] = Json::Int(p.m_fsk_capture_data);
    root["m_ask_second_reader"] = Json::Int(p.m_ask_second_reader);
    root["m_fsk_second_reader"] = Json::Int(p.m_fsk_second_reader);
    for (const TimingKey& k : kTimingKeys)
        root[k.key] = Json::Int(p.*k.field);
    root["savePath"] = p.savePath;
    root["m_skip_version"] = Json::Int(p.m_skip_version);
    root["m_auto_scope"] = Json::Int(p.m_auto_scope);
    root["m_window_time"] = Json::Int(p.m_window_time);
    root["m_dac_value"] = Json::Int(p.m_dac_value);
    root["m_dac_locked"] = Json::Int(p.m_dac_locked);
    root["m_dac_manual"] = Json::Int(p.m_dac_manual);
    root["m_Polarity"] = p.m_Polarity;
    Json::StyledWriter writer;
    return writer.write(root);
}

void AppSettings::save()
{
    const std::string text = Serialize(*m_params);
    if (text.empty())
        return;
    // The configuration folder may not exist yet on a first run.
    QDir().mkpath(QFileInfo(QString::fromStdString(m_filePath)).absolutePath());
    bool ok = false;
    if (std::FILE* file = std::fopen(m_filePath.c_str(), "wb")) {
        ok = std::fwrite(text.data(), 1, text.size(), file) == text.size();
        ok = (std::fclose(file) == 0) && ok;
    }
    if (!ok) {
        Log::Printf("Save fail, may be dir is readonly.");
        Log::Printf("%s", m_filePath.c_str());
    }
}

std::string AppSettings::SavePathSlash() const
{
    return m_params->savePath + "/";
}

std::string AppSettings::MakeSessionFolders(const std::tm& localTime)
{
    char name[64];
    std::strftime(name, sizeof name, "%Y_%m_%d %H_%M_%S", &localTime);
    const std::string folder = m_params->savePath + "/" + name;
    const std::string withSlash = folder + "/";
    m_params->logPath = withSlash;
    m_params->eventPath = withSlash;
    m_params->capturePath = withSlash;
    QDir().mkpath(QString::fromStdString(folder));
    return withSlash;
}

std::string AppSettings::MakeSessionFolders()
{
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    localtime_r(&now, &parts);
    return MakeSessionFolders(parts);
}

std::string AppSettings::TimeText(int64_t microseconds)
{
    return ::TimeText(microseconds);
}
