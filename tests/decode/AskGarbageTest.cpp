// Corrupt streams: random bytes, random chunk lengths, truncated frames, wrong
// length words. Nothing may crash or touch memory out of bounds (the sanitized
// build runs these), and a length is taken at face value: the parser is back
// on the frames once the bytes it claimed have passed.
#include "AskChain.h"

#include <gtest/gtest.h>

#include <random>

namespace {

std::vector<uint8_t> GoodStream(uint32_t seed, std::vector<std::vector<uint8_t>>* sent = nullptr)
{
    qisim::AskWaveParams p;
    p.swing = 1800;
    qisim::AskWaveWriter w(p, seed);
    w.Idle(400);
    const std::vector<std::vector<uint8_t>> packets{{0x03, 0x00, 0x03}, {0x03, 0x05, 0x06}, {0x07, 0x02, 0x05}};
    for (const auto& b : packets) {
        w.Packet(b, 11);
        w.Idle(1200);
    }
    if (sent)
        *sent = packets;
    return qisim::AskStreamFrames(w.Samples());
}

std::vector<std::string> Texts(AskChain& chain)
{
    std::vector<std::string> out;
    for (const auto& f : chain.Frames())
        if (f->packet.Status == "NoError")
            out.push_back(f->packet.PacketData);
    return out;
}

// Feeds bytes in random chunk lengths, odd ones included, running passes.
void FeedRandomly(AskChain& chain, const std::vector<uint8_t>& bytes, std::mt19937& rng)
{
    size_t off = 0;
    while (off < bytes.size()) {
        const size_t n = std::min<size_t>(bytes.size() - off, 1 + rng() % 900);
        chain.port->Push(bytes.data() + off, n);
        off += n;
        if (rng() % 3 == 0) {
            chain.thread.RunPass();
            while (AskDecodingPass(chain.thread.Stream(), chain.decoder) == 0) {
            }
        }
    }
    chain.thread.RunPass();
    while (AskDecodingPass(chain.thread.Stream(), chain.decoder) == 0) {
    }
}

}  // namespace

TEST(AskGarbage, RandomBytesInRandomChunksNeverCrash)
{
    for (uint32_t seed = 1; seed <= 40; ++seed) {
        std::mt19937 rng(seed);
        std::vector<uint8_t> junk(20000 + rng() % 60000);
        for (auto& b : junk)
            b = static_cast<uint8_t>(rng());
        AskChain chain;
        FeedRandomly(chain, junk, rng);
        // Whatever was made of it is a well-formed frame list.
        for (const auto& f : chain.Frames()) {
            EXPECT_LE(f->packet.PacketData.size(), 3u * 255u);
            EXPECT_EQ(f->direction, 2u);
        }
    }
}

TEST(AskGarbage, EnvelopeOfRandomLevelsNeverCrashes)
{
    // Well-framed streams whose samples are noise, square waves of random widths
    // and spikes: every burst shape reaches the decoder.
    for (uint32_t seed = 1; seed <= 20; ++seed) {
        std::mt19937 rng(seed);
        std::vector<uint16_t> samples;
        while (samples.size() < 200000) {
            const int kind = static_cast<int>(rng() % 3);
            const size_t n = 1 + rng() % 40;
            const uint16_t level = static_cast<uint16_t>(rng() % 4096);
            for (size_t i = 0; i < n; ++i)
                samples.push_back(kind == 0 ? static_cast<uint16_t>(rng() % 4096) : level);
        }
        AskChain chain;
        chain.Stream(qisim::AskStreamFrames(samples), 400);
        chain.Frames();
    }
}

TEST(AskGarbage, GoodFramesDecodeOnceAWrongLengthHasPassed)
{
    std::vector<std::vector<uint8_t>> sent;
    const auto good = GoodStream(3, &sent);
    // A frame header claiming 1000 bytes, followed by exactly 1000 bytes of junk
    // (odd words, spikes, zeros), then the good stream.
    std::vector<uint8_t> bytes{0xE8, 0x03, 0x00, 0x00, 0x11, 0x22, 0x33, 0x44};
    std::mt19937 rng(9);
    for (int i = 0; i < 1000; ++i)
        bytes.push_back(static_cast<uint8_t>(rng()));
    bytes.insert(bytes.end(), good.begin(), good.end());
    AskChain chain;
    chain.Stream(bytes, 400);
    std::vector<std::string> expected;
    for (const auto& s : sent)
        expected.push_back(SpacedHex(s.data(), s.size()));
    EXPECT_EQ(Texts(chain), expected);
}

TEST(AskGarbage, RandomBytesThenAResynchronisedStreamDecodes)
{
    // Random junk of any length leaves the parser somewhere inside a claimed
    // frame. The junk here ends with a frame whose length covers what follows
    // up to the good stream, so the parser is on the good frames after it.
    std::vector<std::vector<uint8_t>> sent;
    const auto good = GoodStream(4, &sent);
    for (uint32_t seed = 1; seed <= 10; ++seed) {
        std::mt19937 rng(seed);
        AskChain chain;
        std::vector<uint8_t> junk(1000 + rng() % 5000);
        for (auto& b : junk)
            b = static_cast<uint8_t>(rng());
        FeedRandomly(chain, junk, rng);
        // Finish whatever frame the parser believes it is in.
        std::vector<uint8_t> filler;
        if (chain.thread.ParserState() == 1) {
            filler = {0x00, 0x00};  // high length word 0: a frame of under 64 KiB
        }
        chain.port->Push(filler);
        chain.thread.RunPass();
        if (chain.thread.ParserState() == 2 || chain.thread.ParserState() == 3) {
            std::vector<uint8_t> stamp(2 * (4 - chain.thread.ParserState()), 0);
            chain.port->Push(stamp);
            chain.thread.RunPass();
        }
        if (chain.thread.ParserState() == 4) {
            const uint32_t left = chain.thread.Remaining();
            if (left > (1u << 20))
                continue;  // a claimed frame of megabytes: the stream is samples until it ends
            std::vector<uint16_t> idle((left + 1) / 2, 600);
            std::vector<uint8_t> words;
            for (uint16_t v : idle) {
                words.push_back(static_cast<uint8_t>(v & 0xFF));
                words.push_back(static_cast<uint8_t>(v >> 8));
            }
            chain.port->Push(words);
            chain.thread.RunPass();
        }
        ASSERT_EQ(chain.thread.ParserState(), 0) << seed;
        chain.Frames();
        chain.Stream(good, 400);
        std::vector<std::string> expected;
        for (const auto& s : sent)
            expected.push_back(SpacedHex(s.data(), s.size()));
        EXPECT_EQ(Texts(chain), expected) << seed;
    }
}

TEST(AskGarbage, TruncatedFrameShiftsTheParserUntilItsClaimedLengthHasPassed)
{
    // A frame that claims 400 bytes but holds 100: the parser reads the next
    // frame's header as samples, then takes four of that frame's sample words
    // for a header. The length it reads there (samples of some 600 in both
    // words: about 39 million bytes) keeps it off the frame grid until that
    // many bytes have passed; every word meanwhile is a sample.
    const auto good = GoodStream(5);
    std::vector<uint8_t> bytes{0x90, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
    for (int i = 0; i < 50; ++i) {
        bytes.push_back(0x58);
        bytes.push_back(0x02);
    }
    bytes.insert(bytes.end(), good.begin(), good.end());
    AskChain chain;
    chain.Stream(bytes, 400);
    EXPECT_EQ(chain.thread.SampleCounter(), (bytes.size() - 16) / 2);
    EXPECT_EQ(chain.thread.ParserState(), 4);
    EXPECT_GT(chain.thread.Remaining(), 30000000u);
}
