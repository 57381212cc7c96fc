#pragma once

// coilscope-cli replay ASKFILE [FSKFILE] [--sid OUT] [--json] [--ask-reader list|both] [--fsk-reader list|both]
// coilscope-cli replay SESSION.sid [--json]
// coilscope-cli replay CAPTURE.sr [--ask-channel NAME] [--sid OUT] [--json]
int RunReplay(int argc, char** argv);

// The value of --ask-reader: "list" (the list decoder alone) gives false,
// "both" (the list decoder and the second reader) true; anything else fails.
bool ParseAskReader(const char* value, bool& both);
// The value of --fsk-reader: "list" (the FSK frame decoder alone) gives false,
// "both" (the frame decoder and the second reader) true; anything else fails.
bool ParseFskReader(const char* value, bool& both);
