#pragma once

// coilscope-cli check SESSION.sid [--json]
// coilscope-cli check ASKFILE [FSKFILE] [--json] [--ask-reader list|both] [--fsk-reader list|both]
// One line per timing finding in capture order, then a summary line; status
// 0 with no error found, 1 with one or more, 2 for bad input.
int RunCheck(int argc, char** argv);
