#pragma once

// coilscope-cli replay ASKFILE [FSKFILE] [--sid OUT] [--json]
// coilscope-cli replay SESSION.sid [--json]
int RunReplay(int argc, char** argv);
