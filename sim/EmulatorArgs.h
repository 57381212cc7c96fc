// The command line of coilscope-sim.
#pragma once

#include "sim/DeviceEmulator.h"

#include <string>
#include <vector>

namespace coilsim {

struct EmulatorArgs {
    EmulatorOptions options;
    double seconds = 0.0;  // stop after this much wall time; 0: run until signalled
    bool help = false;
};

// Reads the arguments (without the program name). False with a message when
// they don't make sense.
bool ParseEmulatorArgs(const std::vector<std::string>& args, EmulatorArgs& out, std::string& error);

// The text of --help.
std::string EmulatorHelp();

}  // namespace coilsim
