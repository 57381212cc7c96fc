#pragma once

// coilscope-cli export SESSION.sid --sr OUT.sr
// coilscope-cli export ASKFILE [FSKFILE] --sr OUT.sr
int RunExport(int argc, char** argv);
