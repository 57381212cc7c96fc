// The last-chance handler for faults (SIGSEGV, SIGBUS, SIGFPE, SIGILL,
// SIGABRT): it writes a crash report with a backtrace under the temporary
// folder, notes it in the application log, starts the reporter program if
// there is one beside the application, and lets the process end. While a
// debugger is attached it does nothing and the fault takes its course.
#pragma once

#include <string>

// Installs the handler; every program's main() calls it first.
void InstallCrashHandler();

// The folder crash reports go to: <temporary folder>/Sniffer.
std::string CrashFolder();
