#pragma once

#include <cstdint>
#include <string>
#include <vector>

// coilscope-cli decode [--fsk] [--json] HEX...
int RunDecode(int argc, char** argv);

// Reads hexadecimal bytes from the arguments joined together: blanks between
// or inside them are ignored, either letter case. On failure returns false and
// says what is wrong in error.
bool ParseHexBytes(const std::vector<std::string>& args, std::vector<uint8_t>& bytes, std::string& error);
