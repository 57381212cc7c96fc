// The steps of a Qi session as coilscope-sim plays it: receiver packets (ASK),
// transmitter packets and response patterns (FSK), digital pings and carrier
// periods. A script is either the built-in session, generated cycle after
// cycle, or a plain text file of steps (see FormatHelp for its format).
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace coilsim {

struct ScriptStep {
    enum class Kind {
        Ask,       // a receiver packet: bytes are header and message, the checksum is added when played
        Fsk,       // a transmitter packet: likewise
        Pattern,   // a transmitter response pattern: bytes holds the one pattern byte
        Ping,      // carrier for ms (at hz when hz > 0), then no carrier
        Carrier,   // carrier at hz for ms; it stays on afterwards
        Off,       // no carrier for ms
        Wait,      // ms with the carrier as it is
        Preamble,  // preamble ones of the following receiver packets (0: a random 11 to 16)
        BitRate,   // ASK bit rate in hz of the following receiver packets (0: 2000)
        Repeat,    // start over from the first step
    };
    Kind kind = Kind::Wait;
    std::vector<uint8_t> bytes;
    double ms = 0.0;
    double hz = 0.0;
    int preamble = 0;
    int line = 0;  // line of the script file, 0 for generated steps
};

// Limits of what a script may ask for.
constexpr size_t kMaxScriptPacketBytes = 32;
constexpr double kMaxStepMs = 86400000.0;  // one day
constexpr double kMinCarrierHz = 1000.0;
constexpr double kMaxCarrierHz = 10000000.0;
constexpr int kMaxPreambleOnes = 64;
constexpr double kMinAskBitRateHz = 1000.0;
constexpr double kMaxAskBitRateHz = 4000.0;

// Timing breaches the built-in session can make on purpose, once, in its
// first cycle (coilscope-sim --breach NAME): each breaks one rule of the
// timing checker and nothing else.
struct Breach {
    const char* name;  // the rule it breaks, with -slow or -fast for the bit rate
    const char* what;  // what the receiver or transmitter does
};
// The breaches, in the order --help lists them.
const std::vector<Breach>& Breaches();
bool IsBreach(const std::string& name);
constexpr double kDefaultCarrierHz = 128000.0;

class SessionScript {
public:
    // The built-in session (cycles of pings, a receiver's identification,
    // configuration, negotiation, calibration and power transfer, then its
    // removal), drawn afresh for every cycle from the seed.
    static SessionScript Default(uint32_t seed);
    // The same with one breach in its first cycle (an empty name: none).
    static SessionScript Default(uint32_t seed, const std::string& breach);

    // A script from text. False, with a message naming the line, when the
    // text doesn't parse; the script is then left as it was.
    static bool Parse(const std::string& text, SessionScript& script, std::string& error);
    static bool Load(const std::string& path, SessionScript& script, std::string& error);

    // The format of script files, for --help.
    static const char* FormatHelp();

    // One cycle of the built-in session.
    static std::vector<ScriptStep> DefaultCycle(std::mt19937& rng, const std::string& breach = std::string());

    // The next step to play. Repeat steps are followed here and never
    // returned. False once a script without Repeat has ended.
    bool Next(ScriptStep& step);

    // The steps of a parsed script, or of the cycle in play for the built-in one.
    const std::vector<ScriptStep>& Steps() const { return steps_; }
    bool IsDefault() const { return generated_; }

private:
    std::vector<ScriptStep> steps_;
    size_t next_ = 0;
    bool generated_ = false;
    std::mt19937 rng_;
};

// Stream time a step takes when played alone, in milliseconds (packets at
// 2 kHz ASK with the given preamble, or 512 cycles a bit FSK at hz).
double StepDurationMs(const ScriptStep& step, int preamble = 11, double hz = kDefaultCarrierHz);

// Bytes as upper-case hexadecimal pairs, each followed by one blank.
std::string HexText(const std::vector<uint8_t>& bytes);

}  // namespace coilsim
