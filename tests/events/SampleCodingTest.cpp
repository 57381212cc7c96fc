#include "events/SampleCoding.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

namespace {

std::vector<uint8_t> Code(const std::vector<int32_t>& s, size_t from = 0)
{
    std::vector<uint8_t> bytes;
    {
        BitWriter out(bytes);
        samplecoding::PutSeries(out, s.data(), from, s.size());
    }
    return bytes;
}

// The series read back from its bits, with the values before `from` given.
bool Back(const std::vector<uint8_t>& bytes, const std::vector<int32_t>& history, size_t n, std::vector<int32_t>& s,
          bool* atEnd = nullptr)
{
    s = history;
    s.resize(n);
    BitReader in(bytes.data(), bytes.size());
    const bool ok = samplecoding::GetSeries(in, s.data(), history.size(), n);
    if (atEnd)
        *atEnd = in.AtPaddedEnd();
    return ok;
}

// An envelope as the capture records hold it: levels stepping at bit edges,
// smoothed, with noise.
std::vector<int32_t> Envelope(uint32_t seed, size_t n, double noise)
{
    std::mt19937 rng(seed);
    std::normal_distribution<double> gauss(0.0, noise);
    std::vector<int32_t> s(n);
    double level = 2000.0, smooth = level;
    for (size_t i = 0; i < n; ++i) {
        if (i % 10 == 0 && rng() % 2)
            level = level > 1500 ? 1000.0 : 3000.0;
        smooth += (level - smooth) * 0.3;
        s[i] = static_cast<int32_t>(std::lround(smooth + gauss(rng)));
    }
    return s;
}

}  // namespace

TEST(SampleCoding, SeriesOfEveryLengthComeBackExact)
{
    for (size_t n : {size_t{0}, size_t{1}, size_t{2}, size_t{6}, size_t{7}, size_t{31}, size_t{32}, size_t{33},
                     size_t{64}, size_t{65}, size_t{1000}}) {
        SCOPED_TRACE(n);
        const std::vector<int32_t> s = Envelope(static_cast<uint32_t>(n), n, 20.0);
        const std::vector<uint8_t> bytes = Code(s);
        std::vector<int32_t> back;
        bool atEnd = false;
        ASSERT_TRUE(Back(bytes, {}, n, back, &atEnd));
        EXPECT_EQ(back, s);
        EXPECT_TRUE(atEnd);
        EXPECT_EQ(bytes.empty(), n == 0);
    }
}

TEST(SampleCoding, ExtremeValuesAndJumpsComeBackExact)
{
    const int32_t lo = std::numeric_limits<int32_t>::min(), hi = std::numeric_limits<int32_t>::max();
    std::vector<int32_t> s = {lo, hi, lo, hi, 0, -1, 1, hi, hi, hi, lo, lo, 0};
    std::mt19937 rng(1);
    for (int i = 0; i < 300; ++i)
        s.push_back(static_cast<int32_t>(rng()));
    for (int i = 0; i < 100; ++i)
        s.push_back(i % 7 ? 5 : hi);
    std::vector<int32_t> back;
    ASSERT_TRUE(Back(Code(s), {}, s.size(), back));
    EXPECT_EQ(back, s);
}

TEST(SampleCoding, APartGoesOnFromTheValuesBeforeIt)
{
    const std::vector<int32_t> s = Envelope(7, 500, 10.0);
    for (size_t from : {size_t{1}, size_t{3}, size_t{100}, size_t{499}, size_t{500}}) {
        SCOPED_TRACE(from);
        const std::vector<uint8_t> bytes = Code(s, from);
        std::vector<int32_t> back;
        ASSERT_TRUE(Back(bytes, std::vector<int32_t>(s.begin(), s.begin() + static_cast<long>(from)), s.size(), back));
        EXPECT_EQ(back, s);
    }
    // A continuation costs no more than its share: the values before it
    // predict its first block.
    const size_t whole = Code(s).size();
    const size_t tail = Code(s, 400).size();
    EXPECT_LT(tail * 4, whole);
}

// A smooth stretch takes a high order and few bits a value; a noisy one as
// many as its noise needs, and the order chosen per block keeps both.
TEST(SampleCoding, BitsFollowTheNoiseNotTheSignal)
{
    std::vector<int32_t> ramp(2000);
    for (size_t i = 0; i < ramp.size(); ++i)
        ramp[i] = static_cast<int32_t>(3 * i * i / 7 + 1000);
    // A polynomial of order 2 leaves differences of 0 or 1 (the division
    // cuts): about two bits a value with the block heads.
    EXPECT_LT(Code(ramp).size() * 8, ramp.size() * 3);
    // A level with Gaussian noise of standard deviation 20: the differences
    // of order 1 have a deviation of 28, which takes about 6.9 bits a value
    // (log2 of 28 times the square root of 2 pi e); Rice codes stay within
    // half a bit of that.
    std::mt19937 rng(3);
    std::normal_distribution<double> gauss(0.0, 20.0);
    std::vector<int32_t> noisy(20000);
    for (int32_t& v : noisy)
        v = static_cast<int32_t>(std::lround(2000.0 + gauss(rng)));
    const double bitsPerValue = 8.0 * static_cast<double>(Code(noisy).size()) / static_cast<double>(noisy.size());
    EXPECT_LT(bitsPerValue, 7.4);
    EXPECT_GT(bitsPerValue, 6.4);
    // Steps and smoothing on top: every value comes back.
    const std::vector<int32_t> envelope = Envelope(3, 20000, 20.0);
    std::vector<int32_t> back;
    ASSERT_TRUE(Back(Code(envelope), {}, envelope.size(), back));
    EXPECT_EQ(back, envelope);
}

TEST(SampleCoding, BitsCutShortOrLeftOverAreRefused)
{
    const std::vector<int32_t> s = Envelope(11, 300, 30.0);
    const std::vector<uint8_t> bytes = Code(s);
    std::vector<int32_t> back;
    for (size_t n = 0; n < bytes.size(); ++n) {
        const std::vector<uint8_t> cut(bytes.begin(), bytes.begin() + static_cast<long>(n));
        bool atEnd = true;
        const bool ok = Back(cut, {}, s.size(), back, &atEnd);
        EXPECT_FALSE(ok && atEnd) << n;
    }
    std::vector<uint8_t> longer = bytes;
    longer.push_back(0);
    bool atEnd = true;
    ASSERT_TRUE(Back(longer, {}, s.size(), back, &atEnd));
    EXPECT_FALSE(atEnd);
}

TEST(SampleCoding, ValuesBeyondThirtyTwoBitsAreRefused)
{
    // A first value with the zigzag 2^33: 32 ones, the length 34 less one
    // in six bits, then its bits.
    std::vector<uint8_t> bytes;
    {
        BitWriter out(bytes);
        out.Ones(32);
        out.Put(33, 6);
        out.Put(uint64_t{1} << 33, 34);
    }
    std::vector<int32_t> back;
    EXPECT_FALSE(Back(bytes, {}, 1, back));
    // A zigzag of 2^32 - 1 is -2^31, the least 32-bit value: taken.
    bytes.clear();
    {
        BitWriter out(bytes);
        out.Ones(32);
        out.Put(31, 6);
        out.Put(0xFFFFFFFFu, 32);
    }
    ASSERT_TRUE(Back(bytes, {}, 1, back));
    EXPECT_EQ(back[0], std::numeric_limits<int32_t>::min());
}

TEST(SampleCoding, AFirstBlockThatRepeatsNoHeadIsRefused)
{
    // After the first value, a block head "as before" with no block before.
    std::vector<uint8_t> bytes;
    {
        BitWriter out(bytes);
        out.Put(0, 1);  // first value 0 (p = 0: a single zero)
        out.Put(1, 1);  // head: as before
        out.Put(0, 8);
    }
    std::vector<int32_t> back;
    EXPECT_FALSE(Back(bytes, {}, 3, back));
    // And a head naming order 0 or 7.
    for (unsigned order : {0u, 7u}) {
        bytes.clear();
        {
            BitWriter out(bytes);
            out.Put(0, 1);
            out.Put(0, 1);
            out.Put(order, 8);
            out.Put(0, 8);
        }
        EXPECT_FALSE(Back(bytes, {}, 3, back)) << order;
    }
}

// Bytes of any kind never read out of bounds (the sanitizer builds run this)
// and what they decode to codes again to itself.
TEST(SampleCoding, GarbageNeverReadsOutOfBounds)
{
    std::mt19937 rng(5);
    for (int round = 0; round < 3000; ++round) {
        std::vector<uint8_t> bytes(rng() % 200);
        for (uint8_t& b : bytes)
            b = static_cast<uint8_t>(rng());
        const size_t n = rng() % 300;
        std::vector<int32_t> back;
        if (Back(bytes, {}, n, back)) {
            std::vector<int32_t> again;
            ASSERT_TRUE(Back(Code(back), {}, n, again));
            EXPECT_EQ(again, back);
        }
    }
}
