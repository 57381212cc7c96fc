#include "sim/DeviceEmulator.h"
#include <gtest/gtest.h>
TEST(Emulator, Placeholder) {}
