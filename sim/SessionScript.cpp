#include "sim/SessionScript.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace coilsim {

namespace {

using Kind = ScriptStep::Kind;

// ---- Building the built-in session ----

class CycleBuilder {
public:
    explicit CycleBuilder(std::mt19937& rng) : rng_(rng) {}

    int Uniform(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }

    void Ask(std::vector<uint8_t> bytes) { Add(Kind::Ask, std::move(bytes)); }
    void Fsk(std::vector<uint8_t> bytes) { Add(Kind::Fsk, std::move(bytes)); }
    void Pattern(uint8_t byte) { Add(Kind::Pattern, {byte}); }
    void Ping(double ms, double hz) {
        ScriptStep s;
        s.kind = Kind::Ping;
        s.ms = ms;
        s.hz = hz;
        steps_.push_back(s);
    }
    void Carrier(double hz, double ms) {
        ScriptStep s;
        s.kind = Kind::Carrier;
        s.ms = ms;
        s.hz = hz;
        steps_.push_back(s);
    }
    void Off(double ms) {
        ScriptStep s;
        s.kind = Kind::Off;
        s.ms = ms;
        steps_.push_back(s);
    }
    void Wait(double ms) {
        ScriptStep s;
        s.kind = Kind::Wait;
        s.ms = ms;
        steps_.push_back(s);
    }
    void BitRate(double hz) {
        ScriptStep s;
        s.kind = Kind::BitRate;
        s.hz = hz;
        steps_.push_back(s);
    }
    void Preamble(int ones) {
        ScriptStep s;
        s.kind = Kind::Preamble;
        s.preamble = ones;
        steps_.push_back(s);
    }

    // The transmitter answers 4 to 9 ms after the request ends (within the
    // 10 ms the timing checker allows); the receiver goes on a few ms after
    // the answer.
    void AnswerGap() { Wait(Uniform(4, 9)); }
    void PacketGap() { Wait(Uniform(5, 12)); }

    // A request the transmitter acknowledges with the ACK pattern.
    void Acknowledged(std::vector<uint8_t> request) {
        Ask(std::move(request));
        AnswerGap();
        Pattern(0xFF);
        PacketGap();
    }

    std::vector<ScriptStep> Take() { return std::move(steps_); }

private:
    void Add(Kind kind, std::vector<uint8_t> bytes) {
        ScriptStep s;
        s.kind = kind;
        s.bytes = std::move(bytes);
        steps_.push_back(s);
    }

    std::mt19937& rng_;
    std::vector<ScriptStep> steps_;
};

uint8_t Byte(int v) { return static_cast<uint8_t>(v & 0xFF); }

// Received power as the 16-bit ratio of the 0x31 packet (ratio x 32768).
std::vector<uint8_t> ReceivedPower(int mode, double ratio) {
    const int value = std::clamp(static_cast<int>(std::lround(ratio * 32768.0)), 0, 0xFFFF);
    return {0x31, Byte(mode), Byte(value >> 8), Byte(value)};
}

// ---- Parsing ----

std::string Trim(const std::string& s) {
    size_t a = 0, b = s.size();
    while (a < b && std::isspace(static_cast<unsigned char>(s[a]))) ++a;
    while (b > a && std::isspace(static_cast<unsigned char>(s[b - 1]))) --b;
    return s.substr(a, b - a);
}

std::string Lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

bool ParseNumber(const std::string& token, double& value) {
    if (token.empty()) return false;
    const char* begin = token.c_str();
    char* end = nullptr;
    const double v = std::strtod(begin, &end);
    if (end == begin || *end != '\0' || !std::isfinite(v)) return false;
    value = v;
    return true;
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// One token of bytes: "3", "03", "0x03", or a run of pairs such as "03FFFC".
bool ParseHexToken(std::string token, std::vector<uint8_t>& bytes) {
    if (token.size() > 2 && token[0] == '0' && (token[1] == 'x' || token[1] == 'X')) token = token.substr(2);
    if (token.empty()) return false;
    for (char c : token)
        if (HexDigit(c) < 0) return false;
    if (token.size() == 1) {
        bytes.push_back(static_cast<uint8_t>(HexDigit(token[0])));
        return true;
    }
    if (token.size() % 2 != 0) return false;
    for (size_t i = 0; i < token.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(HexDigit(token[i]) * 16 + HexDigit(token[i + 1])));
    return true;
}

std::string LineError(int line, const std::string& message) {
    return "line " + std::to_string(line) + ": " + message;
}

bool ParseDuration(const std::vector<std::string>& words, size_t index, int line, double& ms, std::string& error) {
    if (index >= words.size() || !ParseNumber(words[index], ms)) {
        error = LineError(line, "'" + words[0] + "' needs a duration in milliseconds");
        return false;
    }
    if (ms < 0.0 || ms > kMaxStepMs) {
        error = LineError(line, "a duration must lie between 0 and 86400000 ms");
        return false;
    }
    return true;
}

bool ParseHz(const std::string& word, int line, double& hz, std::string& error) {
    if (!ParseNumber(word, hz) || hz < kMinCarrierHz || hz > kMaxCarrierHz) {
        error = LineError(line, "a carrier frequency must be a number of hertz from 1000 to 10000000");
        return false;
    }
    return true;
}

bool ParseLine(const std::vector<std::string>& words, int line, ScriptStep& step, std::string& error) {
    const std::string verb = Lower(words[0]);
    step = ScriptStep();
    step.line = line;
    const auto argCount = [&](size_t lo, size_t hi) {
        const size_t n = words.size() - 1;
        if (n < lo || n > hi) {
            error = LineError(line, "'" + verb + "' takes " +
                                        (lo == hi ? std::to_string(lo) : std::to_string(lo) + " to " + std::to_string(hi)) +
                                        " argument" + (hi == 1 ? "" : "s"));
            return false;
        }
        return true;
    };
    if (verb == "ask" || verb == "fsk" || verb == "pattern") {
        step.kind = verb == "ask" ? Kind::Ask : verb == "fsk" ? Kind::Fsk : Kind::Pattern;
        for (size_t i = 1; i < words.size(); ++i)
            if (!ParseHexToken(words[i], step.bytes)) {
                error = LineError(line, "'" + words[i] + "' is not a hexadecimal byte");
                return false;
            }
        if (step.bytes.empty()) {
            error = LineError(line, "'" + verb + "' needs at least one byte");
            return false;
        }
        if (step.kind == Kind::Pattern && step.bytes.size() != 1) {
            error = LineError(line, "'pattern' takes exactly one byte");
            return false;
        }
        if (step.bytes.size() > kMaxScriptPacketBytes) {
            error = LineError(line, "a packet holds at most 32 bytes before its checksum");
            return false;
        }
        return true;
    }
    if (verb == "ping") {
        step.kind = Kind::Ping;
        if (!argCount(1, 2) || !ParseDuration(words, 1, line, step.ms, error)) return false;
        return words.size() < 3 || ParseHz(words[2], line, step.hz, error);
    }
    if (verb == "carrier") {
        step.kind = Kind::Carrier;
        if (!argCount(2, 2) || !ParseHz(words[1], line, step.hz, error)) return false;
        return ParseDuration(words, 2, line, step.ms, error);
    }
    if (verb == "off" || verb == "wait") {
        step.kind = verb == "off" ? Kind::Off : Kind::Wait;
        return argCount(1, 1) && ParseDuration(words, 1, line, step.ms, error);
    }
    if (verb == "preamble") {
        step.kind = Kind::Preamble;
        if (!argCount(1, 1)) return false;
        double n = 0;
        if (!ParseNumber(words[1], n) || n != std::floor(n) || n < 0 || n > kMaxPreambleOnes) {
            error = LineError(line, "'preamble' takes a whole number of ones from 1 to 64, or 0 for random");
            return false;
        }
        step.preamble = static_cast<int>(n);
        return true;
    }
    if (verb == "bitrate") {
        step.kind = Kind::BitRate;
        if (!argCount(1, 1)) return false;
        double hz = 0;
        if (!ParseNumber(words[1], hz) || (hz != 0.0 && (hz < kMinAskBitRateHz || hz > kMaxAskBitRateHz))) {
            error = LineError(line, "'bitrate' takes hertz from 1000 to 4000, or 0 for 2000");
            return false;
        }
        step.hz = hz;
        return true;
    }
    if (verb == "repeat") {
        step.kind = Kind::Repeat;
        return argCount(0, 0);
    }
    error = LineError(line, "unknown step '" + words[0] + "'");
    return false;
}

// True when a step moves stream time on.
bool AdvancesTime(const ScriptStep& s) {
    switch (s.kind) {
    case Kind::Ask:
    case Kind::Fsk:
    case Kind::Pattern:
        return true;
    case Kind::Ping:
    case Kind::Carrier:
    case Kind::Off:
    case Kind::Wait:
        return s.ms > 0.0;
    default:
        return false;
    }
}

}  // namespace

const std::vector<Breach>& Breaches() {
    static const std::vector<Breach> list = {
        {"ping-to-first-packet", "the receiver answers the ping 90 ms after the carrier came on"},
        {"config-packet-gap", "30 ms between the identification and the extended identification"},
        {"config-packet-length", "a proprietary packet of 29 bytes (172 ms) before the configuration"},
        {"ce-interval", "one Control Error comes 400 ms late"},
        {"ce-timeout", "no Control Error for 2 s while the carrier stays on"},
        {"holdoff-range", "a Power Control Hold-off of 3 ms before the configuration"},
        {"ask-bit-rate-slow", "one Control Error at 1880 Hz (-6 %)"},
        {"ask-bit-rate-fast", "one Control Error at 2120 Hz (+6 %)"},
        {"ask-preamble", "one Control Error with 9 preamble ones"},
        {"fsk-response-window", "the transmitter acknowledges the first request 14 ms after it"},
        {"terminate-after-ept", "the carrier goes off 40 ms after End Power Transfer"},
    };
    return list;
}

bool IsBreach(const std::string& name) {
    for (const Breach& b : Breaches())
        if (name == b.name) return true;
    return false;
}

std::vector<ScriptStep> SessionScript::DefaultCycle(std::mt19937& rng, const std::string& breach) {
    CycleBuilder b(rng);
    const double pingHz = kDefaultCarrierHz;
    const auto breaks = [&](const char* name) { return breach == name; };

    // Nothing on the pad: a digital ping every 500 ms.
    b.Off(300);
    for (int i = 0; i < 14; ++i) {
        b.Ping(65, pingHz);
        b.Off(435);
    }

    // A receiver arrives. The next ping powers it up, it answers with its
    // signal strength, and the transmitter keeps the carrier on.
    const int answer = b.Uniform(18, 30);
    b.Carrier(pingHz, breaks("ping-to-first-packet") ? 90 : answer);
    b.Ask({0x01, Byte(b.Uniform(0x90, 0xD0))});
    b.PacketGap();

    // Identification and configuration. Identification and extended
    // identification are longer than the host's 2 kHz window, but a receiver
    // sends them all the same.
    b.Ask({0x71, 0x13, 0x00, 0x5A, Byte(0x80 | b.Uniform(0, 0x7F)), Byte(b.Uniform(0, 255)), Byte(b.Uniform(0, 255)),
           Byte(b.Uniform(0, 255))});
    if (breaks("config-packet-gap"))
        b.Wait(30);
    else
        b.PacketGap();
    std::vector<uint8_t> xid{0x81};
    for (int i = 0; i < 8; ++i) xid.push_back(Byte(b.Uniform(0, 255)));
    b.Ask(xid);
    b.PacketGap();
    if (breaks("holdoff-range")) {
        b.Ask({0x06, 0x03});
        b.PacketGap();
    }
    if (breaks("config-packet-length")) {
        // The longest header (27 message bytes) with the longest preamble.
        std::vector<uint8_t> proprietary{0xFF};
        for (int i = 0; i < 27; ++i) proprietary.push_back(Byte(0x11 * (i % 15)));
        b.Preamble(25);
        b.Ask(proprietary);
        b.Preamble(0);
        b.PacketGap();
    }
    // 5 W, no proprietary mode, no optional packets, window 4 ms at 8 ms,
    // m4 0: FSK polarity positive (modulated periods shorter) at the smallest depth.
    b.Ask({0x51, 0x0A, 0x00, 0x00, 0x0A, 0x00});
    b.Wait(b.Uniform(15, 25));

    // Negotiation: every specific request is acknowledged, every general
    // request answered with the data it asks for.
    if (breaks("fsk-response-window")) {
        b.Ask({0x20, 0x01, 0x0A});  // guaranteed power 5 W, acknowledged late
        b.Uniform(4, 9);
        b.Wait(14);
        b.Pattern(0xFF);
        b.PacketGap();
    } else {
        b.Acknowledged({0x20, 0x01, 0x0A});  // guaranteed power 5 W
    }
    b.Acknowledged({0x20, 0x04, 0x14});  // maximum power 10 W
    b.Ask({0x07, 0x31});                 // general request: transmitter capability
    b.AnswerGap();
    b.Fsk({0x31, 0x0A, 0x14, 0x03});  // guaranteed 5 W, potential 10 W
    b.PacketGap();
    b.Ask({0x07, 0x30});  // general request: transmitter identification
    b.AnswerGap();
    b.Fsk({0x30, 0x13, 0x00, 0x5A});
    b.PacketGap();
    b.Acknowledged({0x20, 0x00, 0x04});  // end of negotiation after 4 requests

    // Calibration: received power at light load and with the load connected.
    b.Acknowledged(ReceivedPower(1, 0.08 + b.Uniform(0, 40) / 1000.0));
    b.Wait(b.Uniform(20, 40));
    b.Acknowledged(ReceivedPower(2, 0.45 + b.Uniform(0, 60) / 1000.0));

    // Power transfer for about 20 s: a control error every 50 ms, received
    // power every 1.5 s. The operating frequency settles from 128 kHz to
    // 120 kHz in steps of 200 Hz, one per control error period: small steps
    // that never look like FSK modulation.
    double hz = pingHz;
    const int periods = 400;
    const int breachAt = 40;  // the control error a breach of power transfer is made at
    for (int k = 0; k < periods; ++k) {
        const double settle = 30.0 * std::exp(-k / 15.0);
        const int error = std::clamp(static_cast<int>(std::lround(settle)) + b.Uniform(-2, 2), -128, 127);
        const bool here = k == breachAt;
        if (here && breaks("ask-bit-rate-slow")) b.BitRate(1880);
        if (here && breaks("ask-bit-rate-fast")) b.BitRate(2120);
        if (here && breaks("ask-preamble")) b.Preamble(9);
        b.Ask({0x03, Byte(error)});
        if (here && (breaks("ask-bit-rate-slow") || breaks("ask-bit-rate-fast"))) b.BitRate(0);
        if (here && breaks("ask-preamble")) b.Preamble(0);
        if (hz > 120000.0) hz = std::max(120000.0, hz - 200.0);
        // A 3-byte packet takes 22 ms with an 11-bit preamble, 24.5 ms with 16.
        double after = 27;
        if (here && breaks("ce-interval")) after = 400;
        if (here && breaks("ce-timeout")) after = 2000;
        b.Carrier(hz, after);
        if (k % 30 == 29) {
            b.Acknowledged(ReceivedPower(0, 0.45 + b.Uniform(0, 100) / 1000.0));
            b.Carrier(hz, 5);
        }
    }
    b.Ask({0x02, 0x01});  // end power transfer: charge complete
    const int terminate = b.Uniform(8, 15);
    b.Wait(breaks("terminate-after-ept") ? 40 : terminate);

    // The carrier stops and the receiver is taken off the pad.
    b.Off(600);
    return b.Take();
}

SessionScript SessionScript::Default(uint32_t seed, const std::string& breach) {
    SessionScript s;
    s.generated_ = true;
    s.rng_.seed(seed);
    s.steps_ = DefaultCycle(s.rng_, breach);
    return s;
}

SessionScript SessionScript::Default(uint32_t seed) {
    return Default(seed, std::string());
}

bool SessionScript::Parse(const std::string& text, SessionScript& script, std::string& error) {
    std::vector<ScriptStep> steps;
    std::istringstream in(text);
    std::string raw;
    int line = 0;
    bool advances = false;
    while (std::getline(in, raw)) {
        ++line;
        const size_t hash = raw.find('#');
        const std::string body = Trim(hash == std::string::npos ? raw : raw.substr(0, hash));
        if (body.empty()) continue;
        std::vector<std::string> words;
        std::istringstream ws(body);
        for (std::string w; ws >> w;) words.push_back(w);
        ScriptStep step;
        if (!ParseLine(words, line, step, error)) return false;
        if (step.kind == Kind::Repeat && !advances) {
            error = LineError(line, "'repeat' needs a step before it that takes time");
            return false;
        }
        advances = advances || AdvancesTime(step);
        steps.push_back(step);
    }
    SessionScript s;
    s.steps_ = std::move(steps);
    script = std::move(s);
    return true;
}

bool SessionScript::Load(const std::string& path, SessionScript& script, std::string& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = "cannot read " + path;
        return false;
    }
    std::ostringstream text;
    text << in.rdbuf();
    if (!Parse(text.str(), script, error)) {
        error = path + ": " + error;
        return false;
    }
    return true;
}

bool SessionScript::Next(ScriptStep& step) {
    for (;;) {
        if (next_ >= steps_.size()) {
            if (!generated_) return false;
            steps_ = DefaultCycle(rng_);
            next_ = 0;
        }
        const ScriptStep& s = steps_[next_++];
        if (s.kind == Kind::Repeat) {
            // Parse makes sure that a step taking time comes before it.
            next_ = 0;
            continue;
        }
        step = s;
        return true;
    }
}

const char* SessionScript::FormatHelp() {
    return "Script files (--script FILE) hold one step a line; blank lines and\n"
           "everything from '#' to the end of a line are ignored. Steps play one\n"
           "after the other in stream time; packets never overlap.\n"
           "\n"
           "  ask HH HH ...        a receiver packet on the ASK stream: header and\n"
           "                       message bytes in hexadecimal, the checksum is\n"
           "                       appended (at most 32 bytes before it)\n"
           "  fsk HH HH ...        a transmitter packet on the FSK stream, likewise;\n"
           "                       it switches the carrier on if it was off\n"
           "  pattern HH           a transmitter response pattern of one byte\n"
           "                       (FF is ACK, 00 NAK, 55 ND, 88 MPP)\n"
           "  ping MS [HZ]         carrier for MS milliseconds (at HZ, else at the\n"
           "                       present frequency), then no carrier\n"
           "  carrier HZ MS        carrier at HZ hertz for MS milliseconds; it stays on\n"
           "  off MS               no carrier for MS milliseconds\n"
           "  wait MS              MS milliseconds with the carrier as it is\n"
           "  preamble N           N preamble ones before the following receiver\n"
           "                       packets (1 to 64; 0, the default, a random 11 to 16)\n"
           "  bitrate HZ           ASK bit rate of the following receiver packets\n"
           "                       (1000 to 4000 Hz; 0, the default, 2000)\n"
           "  repeat               start over from the first line\n"
           "\n"
           "Bytes are written 03, 3, 0x03, or in runs such as 03FFFC. Durations may\n"
           "have decimals. The carrier starts off, at 128000 Hz. A script without\n"
           "'repeat' plays once; the link then stays as the last step left it and\n"
           "the receiver stays silent.\n"
           "\n"
           "Example:\n"
           "  # one ping, then a receiver that asks for the transmitter's capability\n"
           "  off 200\n"
           "  ping 65\n"
           "  off 300\n"
           "  carrier 128000 30\n"
           "  ask 01 80          # signal strength\n"
           "  wait 10\n"
           "  ask 07 31          # general request: transmitter capability\n"
           "  wait 10\n"
           "  fsk 31 0A 14 03    # the capability\n"
           "  wait 20\n"
           "  ask 02 01          # end power transfer: charge complete\n"
           "  wait 10\n"
           "  off 500\n";
}

double StepDurationMs(const ScriptStep& step, int preamble, double hz) {
    switch (step.kind) {
    case Kind::Ask:
        return (preamble + 11.0 * (step.bytes.size() + 1)) * 0.5;
    case Kind::Fsk:
        return 11.0 * (step.bytes.size() + 1) * 512.0 / hz * 1000.0;
    case Kind::Pattern:
        return 8.0 * 512.0 / hz * 1000.0;
    case Kind::Ping:
    case Kind::Carrier:
    case Kind::Off:
    case Kind::Wait:
        return step.ms;
    default:
        return 0.0;
    }
}

std::string HexText(const std::vector<uint8_t>& bytes) {
    std::string out;
    char buf[4];
    for (uint8_t b : bytes) {
        std::snprintf(buf, sizeof buf, "%02X ", b);
        out += buf;
    }
    return out;
}

}  // namespace coilsim
