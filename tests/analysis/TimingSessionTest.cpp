// The timing checker over whole sessions of the emulator: the built-in
// session breaks no rule, and each breach the emulator can make on purpose is
// found once, and nothing else.
#include "CheckedSession.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

std::string Describe(const std::vector<analysis::TimingFinding>& findings)
{
    std::string text;
    for (const auto& f : findings)
        text += f.Line() + "\n";
    return text;
}

}  // namespace

TEST(TimingSession, TenMinutesOfTheBuiltInSessionBreakNoRule)
{
    const auto t0 = std::chrono::steady_clock::now();
    const CheckedSession s = CheckBuiltInSession(600.0, 11);
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_TRUE(s.findings.empty()) << Describe(s.findings);
    // Twenty cycles or so of pings, a link and 20 s of power transfer.
    EXPECT_GT(s.packets, 8000u);
    EXPECT_GT(s.edges, 300u);
    std::printf("ten minutes: %zu events, %zu packets checked, %zu carrier edges, %.1f s wall\n", s.events, s.packets,
                s.edges, wall);
}

class TimingBreach : public ::testing::TestWithParam<const char*> {};

TEST_P(TimingBreach, IsFoundOnceAndNothingElse)
{
    const std::string breach = GetParam();
    // The first cycle holds the breach: about 30 s; a few seconds more.
    const CheckedSession s = CheckBuiltInSession(36.0, 5, breach);
    ASSERT_EQ(s.findings.size(), 1u) << breach << ":\n" << Describe(s.findings);
    std::string rule = breach;
    if (rule == "ask-bit-rate-slow" || rule == "ask-bit-rate-fast")
        rule = "ask-bit-rate";
    EXPECT_EQ(analysis::RuleName(s.findings[0].rule), rule) << Describe(s.findings);
    std::printf("%s\n", s.findings[0].Line().c_str());
}

INSTANTIATE_TEST_SUITE_P(EveryBreach, TimingBreach,
                         ::testing::Values("ping-to-first-packet", "config-packet-gap", "config-packet-length",
                                           "ce-interval", "ce-timeout", "holdoff-range", "ask-bit-rate-slow",
                                           "ask-bit-rate-fast", "ask-preamble", "fsk-response-window",
                                           "terminate-after-ept"),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                             std::string name = info.param;
                             for (char& c : name)
                                 if (c == '-')
                                     c = '_';
                             return name;
                         });
