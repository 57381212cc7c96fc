// Fuzz target of the settings reader: the input is the text of a settings file.
// It goes through the parser as the loader hands it over (a NUL-terminated
// buffer), then through the version check, the defaults and the writer; what
// the writer produces must read back to the same record.
#include "services/AppSettings.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

void Check(bool condition)
{
    if (!condition)
        std::abort();
}

// Shortest-form UTF-8 of scalar values only (no surrogates, nothing above
// U+10FFFF).
bool IsWellFormedUtf8(const std::string& s)
{
    size_t i = 0;
    while (i < s.size()) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        size_t extra;
        uint32_t cp;
        if (c < 0x80) {
            ++i;
            continue;
        } else if (c >= 0xC2 && c <= 0xDF) {
            extra = 1;
            cp = c & 0x1F;
        } else if (c >= 0xE0 && c <= 0xEF) {
            extra = 2;
            cp = c & 0x0F;
        } else if (c >= 0xF0 && c <= 0xF4) {
            extra = 3;
            cp = c & 0x07;
        } else {
            return false;
        }
        if (s.size() - i <= extra)
            return false;
        for (size_t k = 1; k <= extra; ++k) {
            const unsigned char t = static_cast<unsigned char>(s[i + k]);
            if ((t & 0xC0) != 0x80)
                return false;
            cp = (cp << 6) | (t & 0x3F);
        }
        if ((extra == 2 && cp < 0x800) || (extra == 3 && (cp < 0x10000 || cp > 0x10FFFF)))
            return false;
        if (cp >= 0xD800 && cp <= 0xDFFF)
            return false;
        i += extra + 1;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string buffer(reinterpret_cast<const char*>(data), size);

    SettingParams record;
    record.m_Polarity = (size & 1) != 0;
    AppSettings::Parse(buffer.c_str(), record);
    if (record.params_ver < AppSettings::kParamsVersion)
        AppSettings::SetDefaults(record, "/tmp/coilscope-fuzz");

    const std::string text = AppSettings::Serialize(record);
    Check(!text.empty());

    SettingParams again;
    Check(AppSettings::Parse(text.c_str(), again));
    Check(again.params_ver == record.params_ver);
    Check(again.m_max_freq == record.m_max_freq);
    Check(again.m_min_freq == record.m_min_freq);
    Check(again.m_ask_signal_reverse == record.m_ask_signal_reverse);
    Check(again.m_ask_trigger_samples == record.m_ask_trigger_samples);
    Check(again.m_ask_capture_data == record.m_ask_capture_data);
    Check(again.m_fsk_capture_data == record.m_fsk_capture_data);
    Check(again.m_skip_version == record.m_skip_version);
    Check(again.m_auto_scope == 0);
    Check(again.m_window_time == record.m_window_time);
    Check(again.m_dac_value == record.m_dac_value);
    Check(again.m_dac_locked == record.m_dac_locked);
    Check(again.m_dac_manual == record.m_dac_manual);
    Check(again.m_Polarity == record.m_Polarity);
    // The writer replaces what is not well-formed UTF-8; the rest reads back
    // byte for byte.
    if (IsWellFormedUtf8(record.savePath))
        Check(again.savePath == record.savePath);
    return 0;
}
