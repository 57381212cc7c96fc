#include "app/CliExport.h"
#include "app/CliFiles.h"

#include "interchange/SigrokExport.h"

#include <cstdio>
#include <string>
#include <vector>

namespace {

const char* kExportHelp =
    "usage: coilscope-cli export SESSION.sid --sr OUT.sr\n"
    "       coilscope-cli export ASKFILE [FSKFILE] --sr OUT.sr\n"
    "\n"
    "Writes a sigrok session (.sr) that PulseView and sigrok-cli open, at the\n"
    "sniffer's 40 kHz on the session's own time base:\n"
    "  qi   logic   the receiver's demodulated data line (sigrok's qi decoder\n"
    "               reads it: sigrok-cli -i OUT.sr -P qi:qi=qi -A qi)\n"
    "  ask  analog  the ASK envelope in ADC counts\n"
    "  fsk  analog  the carrier frequency in kHz from the FSK period words\n"
    "From raw capture files (.2k.bin, .fsk.bin) every sample goes in; from a\n"
    "session file the capture records kept beside it (.rec) are placed at\n"
    "their times.\n";

}  // namespace

int RunExport(int argc, char** argv)
{
    std::vector<std::string> files;
    std::string out;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            std::fputs(kExportHelp, stdout);
            return 0;
        }
        if (a == "--sr" && i + 1 < argc)
            out = argv[++i];
        else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
            std::fprintf(stderr, "coilscope-cli export: unknown option %s (try --help)\n", a.c_str());
            return 2;
        } else
            files.push_back(a);
    }
    if (out.empty() || files.empty() || files.size() > 2 || (files.size() == 2 && EndsWith(files[0], ".sid"))) {
        std::fprintf(stderr, "coilscope-cli export: give SESSION.sid or ASKFILE [FSKFILE], and --sr OUT.sr (try --help)\n");
        return 2;
    }
    std::string error;
    const bool ok = EndsWith(files[0], ".sid")
                        ? interchange::ExportSession(files[0], out, error)
                        : interchange::ExportStreams(files[0], files.size() > 1 ? files[1] : std::string(), out, error);
    if (!ok) {
        std::fprintf(stderr, "coilscope-cli export: %s\n", error.c_str());
        return 2;
    }
    std::fprintf(stderr, "wrote %s\n", out.c_str());
    return 0;
}
