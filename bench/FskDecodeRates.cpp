// How often synthesized transmitter packets come back through the FSK chain,
// by carrier frequency, depth, polarity and bit length.
#include "FskChain.h"

#include <cstdio>

int main()
{
    uint32_t seed = 1;
    std::printf("FSK frames: all headers, 3 packets each, noise 1 tick; percent exact\n");
    std::printf("%-8s %-6s %-5s %-6s %s\n", "Hz", "depth", "pol", "cycles", "exact / other / missing");
    for (double hz : {110000.0, 128000.0, 205000.0})
        for (int depth : {20, 60, 200})
            for (int pol : {-1, 1})
                for (int cycles : {512, 128}) {
                    FskRoundTrip r;
                    for (uint8_t h : FskHeaders()) {
                        FskRoundTripCase c;
                        c.header = h;
                        c.carrierHz = hz;
                        c.depth = depth;
                        c.polarity = pol;
                        c.cyclesPerBit = cycles;
                        c.seed = seed++;
                        r += RunFskRoundTrip(c);
                    }
                    std::printf("%-8.0f %-6d %-5d %-6d %5.1f %% / %5.1f %% / %5.1f %%\n", hz, depth, pol, cycles,
                                100.0 * r.exact / r.sent, 100.0 * r.other / r.sent, 100.0 * r.missing / r.sent);
                }
    std::printf("\nResponse patterns (sent byte -> expected report), 128 kHz, depth 60\n");
    const std::pair<uint8_t, uint8_t> patterns[] = {{0xFF, 0xFF}, {0x88, 0x88}, {0x00, 0x00}, {0x55, 0x55},
                                                    {0x7F, 0xFF}, {0x44, 0x88}, {0xAA, 0x55}};
    for (const auto& pt : patterns)
        for (int cycles : {512, 128}) {
            FskRoundTripCase c;
            c.header = pt.first;
            c.pattern = true;
            c.cyclesPerBit = cycles;
            c.seed = seed++;
            const FskRoundTrip r = RunFskRoundTrip(c, pt.second);
            std::printf("  0x%02X -> 0x%02X at %d cycles a bit: %d of %d\n", pt.first, pt.second, cycles, r.exact, r.sent);
        }
    return 0;
}
