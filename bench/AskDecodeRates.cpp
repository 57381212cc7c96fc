// Measures how often synthesized ASK packets come back through the chain, per
// header and per bit period, with the stream arriving as the device sends it:
// 2 % noise, edge jitter of one sample, a run loop pass per 5 ms of samples.
// The figures plan the decoder's next steps.
#include "AskChain.h"

#include <cstdio>

namespace {

void Print(const char* label, const RoundTrip& r)
{
    std::printf("%-28s sent %5d  exact %5.1f %%  wrong-fork %5.1f %%  error-frame %5.1f %%  missing %5.1f %% (of which longer than the window %5.1f %%)\n",
                label, r.sent, 100.0 * r.exact / r.sent, 100.0 * r.wrongFork / r.sent, 100.0 * r.errorFrame / r.sent,
                100.0 * r.missing / r.sent, 100.0 * r.longMissing / r.sent);
}

}  // namespace

int main()
{
    uint32_t seed = 1000;
    const int packets = 8;
    std::printf("Per header (20 and 14 samples a bit, swings 400/1000/2000/3000, preambles 11/18/25)\n");
    RoundTrip all20, all14;
    for (uint8_t h : AskHeaders()) {
        for (double spb : {20.0, 14.0}) {
            RoundTrip r;
            for (int swing : {400, 1000, 2000, 3000})
                for (int pre : {11, 18, 25}) {
                    RoundTripCase c;
                    c.header = h;
                    c.packets = packets;
                    c.samplesPerBit = spb;
                    c.swing = swing;
                    c.preamble = pre;
                    c.seed = seed++;
                    r += RunRoundTrip(c);
                }
            char label[64];
            std::snprintf(label, sizeof label, "0x%02X (%2d bytes) %2.0f spb", h, qisim::QiMessageSize(h) + 2, spb);
            Print(label, r);
            (spb == 20.0 ? all20 : all14) += r;
        }
    }
    Print("all headers, 20 spb", all20);
    Print("all headers, 14 spb", all14);

    std::printf("\nPer bit period (all headers, swing 1500, preamble 11)\n");
    for (int q = 0; q <= 8; ++q) {
        const double spb = 19.0 + 0.25 * q;
        RoundTrip r;
        for (uint8_t h : AskHeaders()) {
            RoundTripCase c;
            c.header = h;
            c.packets = packets;
            c.samplesPerBit = spb;
            c.seed = seed++;
            r += RunRoundTrip(c);
        }
        char label[64];
        std::snprintf(label, sizeof label, "%.2f samples a bit", spb);
        Print(label, r);
    }
    return 0;
}
