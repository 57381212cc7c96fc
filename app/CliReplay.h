#pragma once

// coilscope-cli replay ASKFILE [FSKFILE] [--sid OUT] [--json]
// coilscope-cli replay SESSION.sid [--json]
int RunReplay(int argc, char** argv);

// The value of --ask-reader: "list" (the list decoder alone) gives false,
// "both" (the list decoder and the second reader) true; anything else fails.
bool ParseAskReader(const char* value, bool& both);
