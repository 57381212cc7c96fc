// coilscope-sim: the sniffer device emulator. Everything is in DeviceEmulator;
// this reads the command line, prints the ports and waits for a signal or
// the end of --seconds.
#include "services/CrashHandler.h"
#include "sim/DeviceEmulator.h"
#include "sim/EmulatorArgs.h"
#include "sim/SessionScript.h"

#include <cmath>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

int main(int argc, char** argv) {
    using namespace coilsim;
    InstallCrashHandler();
    std::vector<std::string> args(argv + (argc > 0 ? 1 : 0), argv + (argc > 0 ? argc : 0));
    EmulatorArgs parsed;
    std::string error;
    if (!ParseEmulatorArgs(args, parsed, error)) {
        std::fprintf(stderr, "coilscope-sim: %s\n", error.c_str());
        return 2;
    }
    if (parsed.help) {
        std::fputs(EmulatorHelp().c_str(), stdout);
        return 0;
    }

    // The signals are taken by sigtimedwait below; blocked here, before the
    // worker starts, so that no thread gets them delivered.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    // A script that doesn't load is bad input, like a bad option.
    if (!parsed.options.scriptFile.empty()) {
        SessionScript script;
        if (!SessionScript::Load(parsed.options.scriptFile, script, error)) {
            std::fprintf(stderr, "coilscope-sim: %s\n", error.c_str());
            return 2;
        }
    }

    DeviceEmulator emulator(parsed.options);
    if (!emulator.Start(error)) {
        std::fprintf(stderr, "coilscope-sim: %s\n", error.c_str());
        return 1;
    }
    for (PortRole role : {PortRole::Command, PortRole::Ask, PortRole::Fsk})
        std::printf("%s %s\n", RoleName(role), emulator.PortPath(role).c_str());
    std::fflush(stdout);

    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    if (parsed.seconds > 0) {
        const double whole = std::floor(parsed.seconds);
        deadline.tv_sec += static_cast<time_t>(whole);
        deadline.tv_nsec += static_cast<long>((parsed.seconds - whole) * 1e9);
        if (deadline.tv_nsec >= 1000000000L) {
            deadline.tv_sec += 1;
            deadline.tv_nsec -= 1000000000L;
        }
    }
    for (;;) {
        timespec wait{1, 0};
        if (parsed.seconds > 0) {
            timespec now{};
            clock_gettime(CLOCK_MONOTONIC, &now);
            long long left = (static_cast<long long>(deadline.tv_sec) - now.tv_sec) * 1000000000LL +
                             (deadline.tv_nsec - now.tv_nsec);
            if (left <= 0) break;
            if (left < 1000000000LL) wait = {0, static_cast<long>(left)};
        }
        const int sig = sigtimedwait(&stopSignals, nullptr, &wait);
        if (sig > 0) break;
    }
    emulator.Stop();
    // What went out, and what the host did not read in time: frames are
    // dropped whole when the host-side queue of a port is full, and those
    // still queued when streaming stops are not sent.
    const EmulatorCounters c = emulator.Counters();
    std::printf("frames sent: ASK %llu, FSK %llu; dropped (host too slow): ASK %llu, FSK %llu; "
                "not sent after the stop: ASK %llu, FSK %llu\n",
                static_cast<unsigned long long>(c.askFramesSent), static_cast<unsigned long long>(c.fskFramesSent),
                static_cast<unsigned long long>(c.askFramesDropped - c.askFramesDroppedAtStop),
                static_cast<unsigned long long>(c.fskFramesDropped - c.fskFramesDroppedAtStop),
                static_cast<unsigned long long>(c.askFramesDroppedAtStop),
                static_cast<unsigned long long>(c.fskFramesDroppedAtStop));
    std::fflush(stdout);
    return 0;
}
