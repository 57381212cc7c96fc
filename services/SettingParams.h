// The process-wide settings record: every persisted option and the few values
// that the running system shares through it. Code that only reads a value asks
// for the record; the file itself is loaded and saved by the settings object.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

struct SettingParams {
    int32_t params_ver = 0;
    int32_t m_max_freq = 0;
    int32_t m_min_freq = 0;
    int32_t m_ask_signal_reverse = 0;
    int32_t m_ask_trigger_samples = 0;
    int32_t m_ask_capture_data = 0;
    int32_t m_fsk_capture_data = 0;
    std::string savePath;
    std::string logPath;
    std::string eventPath;
    std::string capturePath;
    int32_t m_skip_version = 0;
    int32_t m_auto_scope = 0;
    int32_t m_window_time = 0;
    int32_t m_dac_value = 0;
    int32_t m_dac_max = 2700;
    int32_t m_dac_min = 1100;
    int32_t m_dac_locked = 0;
    int32_t m_dac_manual = 0;
    bool m_Polarity = false;
    // The second ASK reader beside the list decoder: 1 on (the default), 0 off.
    int32_t m_ask_second_reader = 1;
    // The second FSK reader beside the FSK frame decoder: 1 on (the default), 0 off.
    int32_t m_fsk_second_reader = 1;
    // The timing checker's limits (analysis/TimingChecker.h).
    int32_t m_timing_ping_first_ms = 65;
    int32_t m_timing_config_gap_ms = 21;
    int32_t m_timing_config_length_ms = 170;
    int32_t m_timing_ce_interval_ms = 350;
    int32_t m_timing_ce_timeout_ms = 1800;
    int32_t m_timing_holdoff_min_ms = 5;
    int32_t m_timing_holdoff_max_ms = 205;
    int32_t m_timing_bit_rate_hz = 2000;
    int32_t m_timing_bit_rate_tolerance_pct = 4;
    int32_t m_timing_preamble_min = 11;
    int32_t m_timing_preamble_max = 25;
    int32_t m_timing_response_ms = 10;
    int32_t m_timing_terminate_ms = 28;
    // Learnt from the traffic of this run: 0 none, 1 or -1. Written by the
    // packet layer and read by the FSK decoders on other threads.
    std::atomic<int32_t> detectedPolarity{0};
    uint8_t deviceRecord[1024] = {};

    // The one record of the process, created with these construction values at
    // first use without touching the file.
    static SettingParams& Instance();
    // The given record, or the process record when none is given (threads and
    // chains built by tests and replay carry their own).
    static SettingParams& Or(SettingParams* settings) { return settings ? *settings : Instance(); }
};
