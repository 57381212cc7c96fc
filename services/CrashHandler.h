// The last-chance handler for faults (SIGSEGV, SIGBUS, SIGFPE, SIGILL,
// SIGABRT): it writes a crash report with a backtrace under the temporary
// folder, notes it in the application log, starts the reporter program if
// there is one beside the application, and lets the process end. While a
// debugger is attached it does nothing and the fault takes its course.
#pragma once

#include <cstddef>
#include <ctime>
#include <string>

// Installs the handler; every program's main() calls it first.
void InstallCrashHandler();

// The folder crash reports go to: <temporary folder>/Sniffer.
std::string CrashFolder();

// Where the report of a fault at local time t in process pid, thread tid goes:
// <temporary folder>Sniffer//<version>-<yyyymmdd>-<hhmmss>-<pid>-<tid>.dmp
// (the temporary folder ends with a slash). Two faults in the same second
// share a name, and the later report replaces the earlier, unless their
// process or thread differ. Safe in a signal handler: no allocation.
void CrashReportPath(char* out, size_t size, const char* tempFolder, const std::tm& t, long pid, long tid);
