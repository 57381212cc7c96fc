#include "sim/EmulatorArgs.h"

#include "sim/SessionScript.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>

namespace coilsim {

namespace {

bool ToDouble(const std::string& text, double& value) {
    if (text.empty()) return false;
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(text.c_str(), &end);
    if (*end != '\0' || errno != 0 || !std::isfinite(v)) return false;
    value = v;
    return true;
}

bool ToInteger(const std::string& text, long long lo, long long hi, long long& value) {
    if (text.empty()) return false;
    char* end = nullptr;
    errno = 0;
    const long long v = std::strtoll(text.c_str(), &end, 10);
    if (*end != '\0' || errno != 0 || v < lo || v > hi) return false;
    value = v;
    return true;
}

}  // namespace

bool ParseEmulatorArgs(const std::vector<std::string>& args, EmulatorArgs& out, std::string& error) {
    EmulatorArgs a;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& opt = args[i];
        const auto value = [&](std::string& v) {
            if (i + 1 >= args.size()) {
                error = opt + " needs a value";
                return false;
            }
            v = args[++i];
            return true;
        };
        std::string v;
        if (opt == "--help" || opt == "-h") {
            a.help = true;
        } else if (opt == "--dir") {
            if (!value(a.options.dir)) return false;
            if (a.options.dir.empty()) {
                error = "--dir needs a folder";
                return false;
            }
        } else if (opt == "--speed") {
            if (!value(v)) return false;
            if (!ToDouble(v, a.options.speed) || a.options.speed <= 0.0 || a.options.speed > 10000.0) {
                error = "--speed takes a number above 0 and at most 10000, not '" + v + "'";
                return false;
            }
        } else if (opt == "--seconds") {
            if (!value(v)) return false;
            if (!ToDouble(v, a.seconds) || a.seconds <= 0.0 || a.seconds > 1e9) {
                error = "--seconds takes a positive number, not '" + v + "'";
                return false;
            }
        } else if (opt == "--seed") {
            if (!value(v)) return false;
            long long n = 0;
            if (!ToInteger(v, 0, std::numeric_limits<uint32_t>::max(), n)) {
                error = "--seed takes a whole number from 0 to 4294967295, not '" + v + "'";
                return false;
            }
            a.options.haveSeed = true;
            a.options.seed = static_cast<uint32_t>(n);
        } else if (opt == "--noise") {
            a.options.noise = true;
        } else if (opt == "--firmware") {
            if (!value(v)) return false;
            long long n = 0;
            if (!ToInteger(v, 0, 999999999, n)) {
                error = "--firmware takes a whole number from 0 to 999999999, not '" + v + "'";
                return false;
            }
            a.options.firmware = static_cast<int>(n);
        } else if (opt == "--boot-mode") {
            a.options.bootMode = true;
        } else if (opt == "--reject-firmware") {
            a.options.rejectFirmware = true;
        } else if (opt == "--build-date") {
            if (!value(a.options.buildDate)) return false;
        } else if (opt == "--script") {
            if (!value(a.options.scriptFile)) return false;
            if (a.options.scriptFile.empty()) {
                error = "--script needs a file";
                return false;
            }
        } else if (opt == "--breach") {
            if (!value(a.options.breach)) return false;
            if (!IsBreach(a.options.breach)) {
                error = "--breach takes one of the names --help lists, not '" + a.options.breach + "'";
                return false;
            }
        } else if (opt == "--commands") {
            if (!value(a.options.commandLog)) return false;
            if (a.options.commandLog.empty()) {
                error = "--commands needs a file";
                return false;
            }
        } else if (opt == "--silent-start") {
            a.options.silentStart = true;
        } else if (opt == "--record") {
            if (i + 2 >= args.size() || args[i + 1].empty() || args[i + 2].empty()) {
                error = "--record needs two files: ASKFILE FSKFILE";
                return false;
            }
            a.options.recordAsk = args[++i];
            a.options.recordFsk = args[++i];
            if (a.options.recordAsk == a.options.recordFsk) {
                error = "--record needs two different files";
                return false;
            }
        } else {
            error = "unknown option '" + opt + "' (see --help)";
            return false;
        }
    }
    out = a;
    return true;
}

std::string EmulatorHelp() {
    std::string text =
        "usage: coilscope-sim [options]\n"
        "\n"
        "Emulates the Qi sniffer on three pseudo-terminals: a command port, an ASK\n"
        "data port and an FSK data port, shown as links DIR/ttyACM<n> with three\n"
        "random numbers n from 0 to 99. Which link is which changes from run to\n"
        "run: ask each port (command 09 00). On start one line per port is\n"
        "printed, its role and its link, e.g. \"command /tmp/x/ttyACM17\". Point\n"
        "the host at them with COILSCOPE_PORTS=DIR/ttyACM%d.\n"
        "\n"
        "The device answers its command protocol on any port and, from the start\n"
        "command (05) until the stop (07) or disconnect (03) command, streams a Qi\n"
        "session: every 5 ms one ASK frame (200 envelope samples at 40 kHz) and\n"
        "one FSK frame (carrier period words). The built-in session repeats every\n"
        "30 s or so: digital pings, a receiver's signal strength, identification,\n"
        "extended identification and configuration, negotiation answered over\n"
        "FSK, calibration, 20 s of power transfer, end of power transfer.\n"
        "The session goes on while the device does not stream; each start\n"
        "stamps its frames from 0 again, and frames queued at a stop are dropped.\n"
        "\n"
        "options:\n"
        "  --dir DIR              folder of the links (made if missing; default a\n"
        "                         new folder under /tmp)\n"
        "  --speed X              stream time runs X times faster than wall time;\n"
        "                         the streams' content is the same (default 1)\n"
        "  --seconds N            stop after N seconds (default: until SIGINT or\n"
        "                         SIGTERM)\n"
        "  --seed N               seed of the session, the noise and the port\n"
        "                         numbers (default from the clock)\n"
        "  --noise                2 % envelope noise, 1 sample edge jitter and\n"
        "                         1 tick FSK noise\n"
        "  --firmware N           firmware number the command port reports\n"
        "                         (default 901)\n"
        "  --boot-mode            act as a device in boot mode: every port answers\n"
        "                         the port query with 09 13, nothing streams\n"
        "  --reject-firmware      answer the firmware query with \"$!\"\n"
        "  --build-date TEXT      firmware build date in the device record\n"
        "                         (default 2023.05.20)\n"
        "  --silent-start         start streaming on command 05 but send no reply,\n"
        "                         as when the confirmation is lost\n"
        "  --commands FILE        write one line per command taken: the port's\n"
        "                         role and the bytes in hex (\"command 05\")\n"
        "  --script FILE          play FILE instead of the built-in session (below)\n"
        "  --breach NAME          break one timing rule on purpose, once, in the\n"
        "                         built-in session's first cycle (see below)\n"
        "  --record ASKFILE FSKFILE\n"
        "                         also write both streams as raw capture files,\n"
        "                         byte for byte as sent, and ASKFILE.expected.jsonl\n"
        "                         with one JSON line per scripted packet: direction,\n"
        "                         pattern, bytes (hex pairs each followed by a blank,\n"
        "                         checksum included), start_us and end_us in stream\n"
        "                         time\n"
        "  --help                 this text\n"
        "\n"
        "The ASK envelope idles at 600 and swings by 3000 x 1700 / DAC (the DAC\n"
        "value set by command 29), clamped to the 12-bit range. FSK is 512 carrier\n"
        "cycles a bit, modulated periods 60 ticks shorter; no carrier reads as\n"
        "words of 65535.\n"
        "\n";
    text += "Breaches (--breach NAME; the name is the timing rule broken):\n";
    for (const Breach& b : Breaches()) {
        std::string name = b.name;
        name.resize(std::max<size_t>(name.size() + 1, 23), ' ');
        text += "  " + name + b.what + "\n";
    }
    text += "\n";
    text += SessionScript::FormatHelp();
    text += "\nExit status: 0 after a signal or --seconds, 2 for bad options or a bad\n"
            "script, 1 when the ports can't be made.\n";
    return text;
}

}  // namespace coilsim
