// The power carrier switching on or off, as the FSK side sees it: the start
// of a digital ping (or of a carrier that stays on) and its end.
#pragma once

#include <cstdint>

struct CarrierEdge {
    bool on = false;
    int64_t us = 0;  // capture time, microseconds
};
