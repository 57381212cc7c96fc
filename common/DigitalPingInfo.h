// One digital ping of the transmitter as the FSK side reports it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

struct DigitalPingInfo {
    std::string text;    // label followed by detail
    std::string detail;  // "<ms>ms @ <Hz>HZ"
    std::string label;   // "Digital Ping "
    int64_t durationUs = 0;
    int32_t frequency = 0;
    std::string durationText;
    int64_t endUs = 0;
    std::string endText;
    int64_t startUs = 0;
    std::string startText;
};

using DigitalPingInfoPtr = std::shared_ptr<DigitalPingInfo>;
