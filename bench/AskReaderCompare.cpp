// Not a timing benchmark: how well two ways of finding the transitions of the
// receiver's ASK envelope read synthesized packets, beside the list decoder.
//
//  A  level crossings: three-sample sums against the midpoint between the idle
//     and the modulated level, with hysteresis, crossing times interpolated
//     (the edge finder of AskWireReader, which this tool runs as shipped);
//  B  slope peaks: a four-sample difference of the envelope, each transition
//     placed at the peak of the difference, refined by a parabola through the
//     peak and its neighbours. Fed into the same AskWireBitReader as A.
//  L  the list decoder (burst cutter + CDataFilter) through the ASK chain.
//
// Packets: every header the dispatcher knows, random message bytes, swings
// 400..3000 of either sign, idle levels anywhere that fits, preambles 11..25,
// 2 % noise, edges jittered by up to two samples; per bit rate.
#include "MergedReplay.h"
#include "AskChain.h"
#include "AskRandomStream.h"
#include "decode/AskWireReader.h"
#include "events/StreamReplay.h"
#include "services/SettingParams.h"
#include "sim/AskSynth.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <random>
#include <string>

namespace {

// ---------------------------------------------------------------------------
// Method B: transitions at the peaks of the slope.
class SlopeReader {
public:
    void Feed(const int32_t* x, size_t n, uint64_t first)
    {
        for (size_t i = 0; i < n; ++i)
            Step(x[i], first + i);
    }
    std::vector<AskWireFrame> Take()
    {
        std::vector<AskWireFrame> out;
        out.swap(out_);
        return out;
    }

private:
    enum class State { Fresh, Idle, Levels, Active };

    void Step(int32_t x, uint64_t n)
    {
        switch (state_) {
        case State::Fresh:
            ToIdle(x);
            dev16_ = 0;
            warm_ = 32;
            Idle(x, n);
            break;
        case State::Idle:
            Idle(x, n);
            break;
        case State::Levels:
            window_.push_back(x);
            if (window_.size() >= 64)
                Levels();
            break;
        case State::Active:
            Active(x, n);
            break;
        }
    }

    void ToIdle(int32_t level)
    {
        state_ = State::Idle;
        base16_ = int64_t(level) * 16;
        history_.clear();
        over_ = 0;
        warm_ = 4;
        bits_.Clear();
    }

    // Same idle watch as A: the two methods differ only in the edge finder.
    void Idle(int32_t x, uint64_t n)
    {
        history_.push_back(x);
        if (history_.size() > 8)
            history_.erase(history_.begin());
        const int64_t d16 = int64_t(x) * 16 - base16_;
        if (warm_ > 0) {
            --warm_;
            base16_ += d16 / 8;
            dev16_ += (std::abs(d16) - dev16_) / 8;
            return;
        }
        const int64_t thr = std::max<int64_t>(1600, 5 * dev16_);
        if (d16 > thr)
            over_ = over_ > 0 ? over_ + 1 : 1;
        else if (d16 < -thr)
            over_ = over_ < 0 ? over_ - 1 : -1;
        else {
            over_ = 0;
            base16_ += d16 / 16;
            dev16_ += (std::abs(d16) - dev16_) / 16;
            return;
        }
        if (std::abs(over_) < 2)
            return;
        polarity_ = over_ > 0 ? 1 : -1;
        window_ = history_;
        windowFirst_ = n + 1 - history_.size();
        state_ = State::Levels;
    }

    void Levels()
    {
        std::vector<int32_t> v(window_);
        for (auto& s : v)
            s *= polarity_;
        auto q = v.begin() + long(v.size() / 4);
        std::nth_element(v.begin(), q, v.end(), std::greater<int32_t>());
        swing_ = *q - polarity_ * int32_t(base16_ / 16);
        if (swing_ < 150 || int64_t(swing_) * 16 < 8 * dev16_) {
            auto m = v.begin() + long(v.size() / 2);
            std::nth_element(v.begin(), m, v.end());
            ToIdle(*m * polarity_);
            return;
        }
        state_ = State::Active;
        buf_.clear();
        want_ = polarity_;
        inRun_ = false;
        blocked_ = false;
        locked_ = false;
        lastEdge_ = windowFirst_;
        unlockedSince_ = windowFirst_;
        std::vector<int32_t> held;
        held.swap(window_);
        for (size_t i = 0; i < held.size() && state_ == State::Active; ++i)
            Active(held[i], windowFirst_ + i);
    }

    // D(m) = x[m+1] + x[m+2] - x[m-1] - x[m-2]; a full step gives 2 x swing.
    void Active(int32_t x, uint64_t n)
    {
        buf_.push_back(x);
        if (buf_.size() > 8)
            buf_.erase(buf_.begin());
        if (buf_.size() >= 5) {
            const size_t e = buf_.size() - 1;  // buf_[e] is sample n; centre m = n - 2
            const int64_t d = int64_t(buf_[e]) + buf_[e - 1] - buf_[e - 3] - buf_[e - 4];
            const int64_t sd = want_ * d;
            const double m = double(n - 2);
            if (sd > swing_) {
                if (!inRun_ || sd > best_) {
                    if (!inRun_)
                        before_ = prev_;
                    else
                        before_ = prev_;
                    best_ = sd;
                    bestAt_ = m;
                    after_ = -1;
                    inRun_ = true;
                } else if (after_ < 0) {
                    after_ = sd;
                }
            } else if (inRun_) {
                if (after_ < 0)
                    after_ = sd;
                // Parabola through the peak and its neighbours.
                const double den = double(before_) - 2.0 * double(best_) + double(after_);
                double t = bestAt_;
                if (den < 0)
                    t += 0.5 * double(before_ - after_) / den;
                inRun_ = false;
                want_ = -want_;
                lastEdge_ = n;
                if (!blocked_)
                    Finish(bits_.Edge(t));
            }
            prev_ = sd;
        }
        if (bits_.Running() && double(n) > bits_.Deadline() && !inRun_)
            Finish(bits_.Expire());
        if (!blocked_) {
            const bool locked = bits_.Locked();
            if (locked_ && !locked)
                unlockedSince_ = n;
            locked_ = locked;
        }
        const bool quiet = n - lastEdge_ > 64;
        if (blocked_ ? quiet : !locked_ && (quiet || n - unlockedSince_ > 160))
            ToIdle(x);
    }

    void Finish(AskWireBitReader::Step s)
    {
        if (s == AskWireBitReader::Step::More)
            return;
        if (s == AskWireBitReader::Step::Frame) {
            AskWireFrame f = bits_.TakeFrame();
            f.polarity = polarity_;
            f.swing = swing_;
            out_.push_back(f);
        }
        bits_.Clear();
        blocked_ = true;
    }

    State state_ = State::Fresh;
    int64_t base16_ = 0, dev16_ = 0;
    int over_ = 0, warm_ = 0, polarity_ = 1, want_ = 1;
    int32_t swing_ = 0;
    std::vector<int32_t> history_, window_, buf_;
    uint64_t windowFirst_ = 0, lastEdge_ = 0, unlockedSince_ = 0;
    bool inRun_ = false, blocked_ = false, locked_ = false;
    int64_t best_ = 0, before_ = 0, after_ = -1, prev_ = 0;
    double bestAt_ = 0;
    AskWireBitReader bits_;
    std::vector<AskWireFrame> out_;
};

// ---------------------------------------------------------------------------

using Sent = AskSentPacket;
using Stream = AskRandomStream;
AskHarshness g_harsh;

Stream MakeStream(const std::vector<uint8_t>& headers, int packets, double spb, uint32_t seed)
{
    return MakeAskRandomStream(headers, packets, spb, seed, g_harsh);
}

using Found = AskFoundFrame;

struct Tally {
    int sent = 0, exact = 0, falseFrames = 0;
    std::map<uint8_t, std::pair<int, int>> perHeader;  // exact, sent
    Tally& operator+=(const Tally& o)
    {
        sent += o.sent;
        exact += o.exact;
        falseFrames += o.falseFrames;
        for (auto& kv : o.perHeader) {
            perHeader[kv.first].first += kv.second.first;
            perHeader[kv.first].second += kv.second.second;
        }
        return *this;
    }
};

// A found frame is exact when it holds a sent packet's bytes and starts
// within `before` samples ahead of it or anywhere inside it.
Tally Score(const Stream& s, const std::vector<Found>& found, size_t before)
{
    Tally t;
    std::vector<bool> used(found.size(), false);
    for (const Sent& p : s.sent) {
        ++t.sent;
        auto& ph = t.perHeader[p.bytes[0]];
        ++ph.second;
        for (size_t i = 0; i < found.size(); ++i) {
            if (used[i] || found[i].bytes != p.bytes || found[i].start + before < p.start || found[i].start > p.end)
                continue;
            used[i] = true;
            ++t.exact;
            ++ph.first;
            break;
        }
    }
    for (bool u : used)
        t.falseFrames += u ? 0 : 1;
    return t;
}

template <class Reader>
std::vector<Found> RunReader(const std::vector<uint16_t>& samples)
{
    Reader r;
    std::vector<int32_t> x(samples.begin(), samples.end());
    std::vector<Found> out;
    for (size_t pos = 0; pos < x.size(); pos += 200) {
        r.Feed(x.data() + pos, std::min<size_t>(200, x.size() - pos), pos);
        for (auto& f : r.Take())
            out.push_back({f.firstSample, f.bytes});
    }
    return out;
}

std::vector<Found> RunList(const std::vector<uint16_t>& samples)
{
    AskChain chain;
    chain.Stream(qisim::AskStreamFrames(samples), 400);
    std::vector<Found> out;
    for (const auto& f : chain.Frames()) {
        if (f->packet.Status != "NoError")
            continue;
        std::vector<uint8_t> got;
        for (size_t i = 0; i < f->size && i < CMsgData::kFrameArea; ++i)
            got.push_back(f->FrameByte(i));
        out.push_back({f->timing.startTime / 25, got});
    }
    return out;
}

// The events of a replay of the stream through the data manager, where the
// list decoder and the shipped reader (A) are merged: what the user sees.
std::vector<Found> RunBoth(const std::vector<uint16_t>& samples) { return MergedGoodFrames(samples); }

void Row(const char* label, const Tally& a, const Tally& b, const Tally& l, const Tally& m)
{
    auto pct = [](const Tally& t) { return t.sent ? 100.0 * t.exact / t.sent : 0.0; };
    std::printf("%-22s %6d | A %7.3f %% %4d false | B %7.3f %% %4d false | list %7.3f %% %4d false", label, a.sent,
                pct(a), a.falseFrames, pct(b), b.falseFrames, pct(l), l.falseFrames);
    if (m.sent > 0)
        std::printf(" | both %7.3f %% %4d false", pct(m), m.falseFrames);
    std::printf("\n");
}

void Row(const char* label, const Tally& a, const Tally& b, const Tally& l) { Row(label, a, b, l, Tally{}); }

}  // namespace

int main(int argc, char** argv)
{
    const int perRate = argc > 1 ? std::atoi(argv[1]) : 1000;
    const bool withList = !(argc > 2 && std::string(argv[2]) == "nolist");
    std::printf("Exact packets and frames not sent, %d packets a bit rate\n", perRate);
    Tally totalA, totalB, totalL, totalM;
    uint32_t seed = 7000;
    for (double kHz : {1.6, 1.8, 1.9, 2.0, 2.1, 2.2, 2.4}) {
        std::vector<uint8_t> headers = AskHeaders();
        std::shuffle(headers.begin(), headers.end(), std::mt19937(seed));
        Tally a, b, l, m;
        for (int done = 0; done < perRate; done += 250) {
            const Stream s = MakeStream(headers, std::min(250, perRate - done), 40.0 / kHz, seed++);
            a += Score(s, RunReader<AskWireReader>(s.samples), 4);
            b += Score(s, RunReader<SlopeReader>(s.samples), 4);
            if (withList) {
                l += Score(s, RunList(s.samples), 100);
                m += Score(s, RunBoth(s.samples), 100);
            }
        }
        char label[64];
        std::snprintf(label, sizeof label, "%.1f kHz (%.2f spb)", kHz, 40.0 / kHz);
        Row(label, a, b, l, m);
        totalA += a;
        totalB += b;
        totalL += l;
        totalM += m;
    }
    Row("all rates", totalA, totalB, totalL, totalM);

    std::printf("\nPer header, all rates\n");
    for (auto& kv : totalA.perHeader) {
        Tally a, b, l, m;
        a.sent = b.sent = l.sent = m.sent = kv.second.second;
        a.exact = kv.second.first;
        b.exact = totalB.perHeader[kv.first].first;
        l.exact = totalL.perHeader[kv.first].first;
        m.exact = totalM.perHeader[kv.first].first;
        char label[64];
        std::snprintf(label, sizeof label, "0x%02X (%2d bytes)", kv.first, qisim::QiMessageSize(kv.first) + 2);
        Row(label, a, b, l, m);
    }

    // Beyond what receivers send: more noise, slower edges, more jitter.
    std::printf("\nHarsher envelopes, A and B, %d packets each\n", perRate);
    for (AskHarshness h : {AskHarshness{0.05, 2.0, 2.0}, AskHarshness{0.08, 2.0, 2.0}, AskHarshness{0.02, 2.0, 6.0},
                           AskHarshness{0.02, 3.0, 2.0}, AskHarshness{0.05, 3.0, 5.0}}) {
        g_harsh = h;
        for (double kHz : {1.6, 2.0, 2.4}) {
            Tally a, b, l;
            for (int done = 0; done < perRate; done += 250) {
                const Stream s = MakeStream(AskHeaders(), std::min(250, perRate - done), 40.0 / kHz, seed++);
                a += Score(s, RunReader<AskWireReader>(s.samples), 4);
                b += Score(s, RunReader<SlopeReader>(s.samples), 4);
            }
            char label[64];
            std::snprintf(label, sizeof label, "n%.0f%% j%.0f r%.0f %.1fkHz", h.noise * 100, h.jitter, h.rise, kHz);
            Row(label, a, b, l);
        }
    }
    g_harsh = AskHarshness{};

    // Nothing but disturbance: white noise, random levels held for random
    // lengths near a bit, and a long square wave of half bits.
    std::mt19937 rng(99);
    std::vector<uint16_t> junk;
    for (int i = 0; i < 400000; ++i)
        junk.push_back(uint16_t(rng() % 4096));
    for (int i = 0; i < 40000; ++i) {
        const int level = 500 + int(rng() % 2) * 1500, len = 4 + int(rng() % 22);
        for (int j = 0; j < len; ++j)
            junk.push_back(uint16_t(level + int(rng() % 60)));
    }
    {
        qisim::AskWaveParams p;
        p.noiseFraction = 0.02;
        p.jitterSamples = 2;
        qisim::AskWaveWriter w(p, 5);
        w.Bits(std::vector<uint8_t>(20000, 1));
        junk.insert(junk.end(), w.Samples().begin(), w.Samples().end());
    }
    std::printf("\nFrames out of %zu samples with no packet: A %zu, B %zu, list %zu\n", junk.size(),
                RunReader<AskWireReader>(junk).size(), RunReader<SlopeReader>(junk).size(),
                withList ? RunList(junk).size() : size_t(0));
    return 0;
}
