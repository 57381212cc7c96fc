#pragma once

// coilscope-cli capture [--seconds N] [--json]
int RunCapture(int argc, char** argv);
