// AskWireReader: the receiver's ASK packets read off every envelope sample.
//
// Two stages. The front end watches the idle level (a slow mean and mean
// deviation, one compare a sample); when two samples in a row leave it, it
// takes 64 samples to find the modulated level, puts a threshold halfway
// between the two and from then on finds the envelope's transitions. The bit
// reader (AskWireBitReader) turns transition times into bits: a run of
// transitions half a bit apart is a preamble, a straight-line fit of their
// times gives the bit clock, and every later transition is rounded to the
// nearest half bit of that clock (a one has one half way, a zero has none),
// the fit following each transition so that the clock tracks the packet.
// Bytes are checked for start bit, odd parity and stop bit, the length comes
// from the header by the Qi length rule and the XOR checksum closes the packet.
//
// A reading the signal does not support is refused, since a frame that was
// never sent misleads more than a missed one: a transition further than
// kMaxDrift half bits from the bit clock (also the one that ends the start
// bit: a start bit off the preamble's phase is none), a transition the
// bi-phase code can't place, and a packet that goes on after the bytes its
// header announces (the envelope must fall quiet after the checksum's stop
// bit; before this, a packet one byte longer than its header allows was
// given out whenever the first bytes' XOR happened to hold, 2 in 1000 such
// packets). What was read of a packet that failed after its start bit is
// kept (TakeFailed), so that the merge can hold another reader's reading of
// the same span against it.
//
// Two edge finders were built and measured on the same synthesized streams
// (bench/AskReaderCompare: every dispatcher header, random message bytes,
// swings 400..3000 of either sign, preambles 11..25, 2 % noise, edges
// jittered by up to 2 samples):
//  A  level crossings: sums of three samples against the midpoint, with
//     hysteresis of a fifth of the swing, the crossing time interpolated
//     between the two sums around it;
//  B  slope peaks: a four-sample difference, the transition at its peak
//     refined by a parabola through the peak and its neighbours.
// Under those conditions both read 70000 of 70000 packets exactly (10000 at
// each of 1.6, 1.8, 1.9, 2.0, 2.1, 2.2 and 2.4 kHz) with no frame that was not
// sent, and none out of 1.4 M samples of noise, random levels and square
// wave; the list decoder on the same streams: 0 / 0.1 / 17.9 / 72.3 / 26.2 /
// 0.6 / 0 % exact at those rates, 117 frames not sent in 7000 packets. They
// part on harsher envelopes (2000 packets each):
//     rise 6 samples        1.6 kHz  A 100 %    B 40.5 %
//                           2.0 kHz  A 100 %    B 83.1 %
//                           2.4 kHz  A 78.9 %   B 93.4 %
//     5 % noise, jitter 3, rise 5
//                           1.6 kHz  A 100 %    B 93.2 %
//                           2.0 kHz  A 93.1 %   B 93.7 %
//                           2.4 kHz  A 11.4 %   B 55.6 %
//     8 % noise             2.4 kHz  A 99.95 %  B 99.90 %
// A is kept: it loses nothing a receiver sends, is the more robust of the
// two on slow edges at the usual bit rates, needs one compare per sample on
// the level and no division, and its threshold follows the measured levels
// rather than a slope that shrinks with rise time. B is better only where
// half-bit pulses barely reach the modulated level (fast rates with slow
// edges), which receivers do not send. B lives in the comparison tool only.
//
// Speed (Release, one core, bench/AskWireReaderBench: packets separated by
// 20 to 40 ms of idle): about 165 M samples a second.
#include "decode/AskWireReader.h"
#include "decode/MessageLength.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>

namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

// Half a bit may last 6.5 to 14 samples (bit rates 1.43 to 3.1 kHz): wider
// than the 1.6 to 2.4 kHz that receivers use, so that the clock is never the
// reason a packet is lost.
constexpr double kMinHalf = 6.5;
constexpr double kMaxHalf = 14.0;
// A preamble must span 21 half bits or more before the start bit. Data bytes
// never hold more than 20 in a row (0xFF: eight data ones, parity one, stop
// one), so the reader can't lock onto the middle of a packet.
constexpr long kMinPreambleHalves = 21;
// Weight of older transitions in the clock fit, per transition.
constexpr double kForget = 0.99;
// A transition is confirmed a few samples after it happened (smoothing and
// hysteresis): deadlines wait that much longer.
constexpr double kLatency = 4.0;
// Largest message of the Qi length rule.
constexpr int kMaxMessage = 27;

// Front end.
constexpr int64_t kMinThreshold = 100;  // least departure from idle that starts a look
constexpr int kDevFactor = 5;           // ... or this many mean deviations of the idle noise
constexpr size_t kLevelWindow = 64;     // samples looked at to find the modulated level
constexpr int32_t kMinSwing = 150;      // smaller swings are idle noise
constexpr int kDevSwing = 8;            // a swing must exceed this many mean deviations too
constexpr uint64_t kQuiet = 64;         // samples without a crossing that end a packet
constexpr uint64_t kLockWait = 160;     // samples a look may take to find a preamble
constexpr int kFreshWarmUp = 32;        // idle samples measured before the first look
constexpr int kWarmUp = 4;              // ... and after every later return to idle
constexpr uint64_t kSettleLag = 16;     // a packet start lies at most this far behind detection

}  // namespace

// ---------------------------------------------------------------------------
// AskWireBitReader

int AskWireBitReader::MessageSize(uint8_t header)
{
    return QiMessageLength(header);
}

AskWireBitReader::AskWireBitReader() : minPreambleHalves_(kMinPreambleHalves)
{
    Clear();
}

void AskWireBitReader::SetMinPreambleHalves(long halves)
{
    minPreambleHalves_ = std::max<long>(kGather, halves);
}

void AskWireBitReader::Clear()
{
    phase_ = Phase::None;
    deadline_ = kInfinity;
    gathered_ = 0;
    bytes_.clear();
}

double AskWireBitReader::RunStart() const
{
    switch (phase_) {
    case Phase::None:
        return kInfinity;
    case Phase::Gather:
        return gather_[0];
    default:
        return first_;
    }
}

void AskWireBitReader::StartRun(double t)
{
    phase_ = Phase::Gather;
    gather_[0] = t;
    gathered_ = 1;
}

void AskWireBitReader::AddPoint(long k, double t)
{
    const double x = static_cast<double>(k);
    const double y = t - t0_;
    previous_ = t;
    s0_ = kForget * s0_ + 1.0;
    s1_ = kForget * s1_ + x;
    s2_ = kForget * s2_ + x * x;
    u0_ = kForget * u0_ + y;
    u1_ = kForget * u1_ + x * y;
    const double det = s0_ * s2_ - s1_ * s1_;
    if (det > 0.0) {
        h_ = (s0_ * u1_ - s1_ * u0_) / det;
        a_ = (u0_ - h_ * s1_) / s0_;
    }
}

long AskWireBitReader::Nearest(double t) const
{
    return std::lround((t - t0_ - a_) / h_);
}

void AskWireBitReader::SetDeadline()
{
    switch (phase_) {
    case Phase::None:
        deadline_ = kInfinity;
        break;
    case Phase::Gather:
        deadline_ = gather_[gathered_ - 1] + 1.5 * kMaxHalf + kLatency;
        break;
    case Phase::Preamble:
        deadline_ = At(last_ + 2.5) + kLatency;
        break;
    case Phase::Bytes:
        deadline_ = At(last_ + (last_ == boundary_ ? 2.5 : 1.5)) + kLatency;
        break;
    case Phase::Trailer:
        // A byte beyond the announced ones would begin at trailer_ + 1 and
        // end its start bit at trailer_ + 3.
        deadline_ = At(trailer_ + 3.5) + kLatency;
        break;
    }
}

AskWireBitReader::Step AskWireBitReader::Expire()
{
    if (phase_ == Phase::Trailer) {
        // Quiet after the last byte: the packet is as long as its header says.
        Clear();
        return Step::Frame;
    }
    if (phase_ != Phase::Bytes) {
        Clear();
        return Step::More;
    }
    Fail();
    return Step::Failed;
}

void AskWireBitReader::Fail()
{
    failed_ = AskWireFrame{};
    failed_.good = false;
    failed_.bytes = bytes_;
    failed_.bits = bits_;
    failed_.drift = drift_;
    failed_.firstSample = static_cast<uint64_t>(std::max(0.0, std::round(first_)));
    failed_.startBitSample = static_cast<uint64_t>(std::max(0.0, std::round(startBit_)));
    failed_.endSample = static_cast<uint64_t>(std::max(0.0, std::round(At(static_cast<double>(last_)))));
    failed_.samplesPerBit = 2.0 * h_;
    Clear();
}

bool AskWireBitReader::Fits(long k, double t)
{
    const double d = std::abs(t - At(static_cast<double>(k))) / h_;
    drift_ = std::max(drift_, d);
    return d <= kMaxDrift;
}

AskWireBitReader::Step AskWireBitReader::Edge(double t)
{
    Step step = Step::More;
    switch (phase_) {
    case Phase::None:
        StartRun(t);
        break;

    case Phase::Gather: {
        if (t - gather_[gathered_ - 1] > 1.5 * kMaxHalf) {
            StartRun(t);
            break;
        }
        gather_[gathered_++] = t;
        if (gathered_ < kGather)
            break;
        // Straight line through the gathered transitions, one half bit apart.
        const double km = (kGather - 1) / 2.0;
        double tm = 0.0;
        for (int i = 0; i < kGather; ++i)
            tm += gather_[i];
        tm /= kGather;
        double sxy = 0.0, sxx = 0.0;
        for (int i = 0; i < kGather; ++i) {
            sxy += (i - km) * (gather_[i] - tm);
            sxx += (i - km) * (i - km);
        }
        const double h = sxy / sxx;
        bool fits = h >= kMinHalf && h <= kMaxHalf;
        for (int i = 0; fits && i < kGather; ++i)
            fits = std::abs(gather_[i] - (tm + h * (i - km))) <= 0.42 * h;
        if (!fits) {
            // Drop the oldest and wait for the next.
            std::copy(gather_ + 1, gather_ + kGather, gather_);
            gathered_ = kGather - 1;
            break;
        }
        phase_ = Phase::Preamble;
        t0_ = gather_[0];
        first_ = gather_[0];
        second_ = gather_[1];
        s0_ = s1_ = s2_ = u0_ = u1_ = 0.0;
        for (int i = 0; i < kGather; ++i)
            AddPoint(i, gather_[i]);
        last_ = kGather - 1;
        break;
    }

    case Phase::Preamble: {
        // Early in the preamble the clock is known from a few transitions
        // only: any transition within one and a half half-bits of the last
        // is the next one (no start bit may come yet). Later the fit decides.
        const long k = last_ < minPreambleHalves_ ? (t - previous_ < 1.6 * h_ ? last_ + 1 : last_ + 3) : Nearest(t);
        if (k == last_ + 1) {
            AddPoint(k, t);
            last_ = k;
        } else if (k == last_ + 2 && last_ >= minPreambleHalves_ && Fits(k, t)) {
            // The transition at last_ began the start bit, and this one ends
            // it, on the preamble's clock (a start bit off the preamble's
            // phase is no start bit).
            if (last_ % 2 == 1)
                first_ = second_;  // the run began on a half bit: its first transition is not the packet's
            startBit_ = At(static_cast<double>(last_));
            AddPoint(k, t);
            last_ = k;
            boundary_ = k;
            phase_ = Phase::Bytes;
            position_ = 0;
            current_ = 0;
            ones_ = 0;
            expected_ = 0;
            bytes_.clear();
            bits_.clear();
            drift_ = 0.0;
            Fits(k, t);
            step = Bit(0);
        } else {
            StartRun(t);
        }
        break;
    }

    case Phase::Bytes: {
        const long k = Nearest(t);
        if (!Fits(k, t)) {
            // Between two cells of the clock: the bi-phase code has no such
            // transition.
            step = Step::Failed;
        } else if (last_ == boundary_ && k == last_ + 1) {  // half-bit transition: a one
            AddPoint(k, t);
            last_ = k;
            step = Bit(1);
        } else if (last_ == boundary_ && k == last_ + 2) {  // a whole bit without: a zero
            AddPoint(k, t);
            last_ = k;
            boundary_ = k;
            step = Bit(0);
        } else if (last_ != boundary_ && k == last_ + 1) {  // the next bit begins
            AddPoint(k, t);
            last_ = k;
            boundary_ = k;
        } else {
            step = Step::Failed;
        }
        if (step == Step::Failed) {
            Fail();
        } else if (step == Step::Frame) {
            phase_ = Phase::Trailer;
            trailer_ = last_;
            returned_ = false;
            step = Step::More;
        }
        break;
    }

    case Phase::Trailer: {
        const long k = Nearest(t);
        if (k <= trailer_ + 1 && !returned_) {
            returned_ = true;
        } else {
            // The envelope goes on after the bytes the header announced: the
            // packet is longer than the length rule allows for its header,
            // and the checksum that held was a coincidence.
            bits_.push_back(0);
            Fail();
            step = Step::Failed;
        }
        break;
    }
    }
    SetDeadline();
    return step;
}

AskWireBitReader::Step AskWireBitReader::Bit(int bit)
{
    bits_.push_back(static_cast<uint8_t>(bit));
    const int position = position_;
    position_ = position_ == 10 ? 0 : position_ + 1;
    if (position == 0)
        return bit == 0 ? Step::More : Step::Failed;
    if (position <= 8) {
        current_ |= bit << (position - 1);
        ones_ += bit;
        return Step::More;
    }
    if (position == 9)
        return (ones_ + bit) % 2 == 1 ? Step::More : Step::Failed;
    if (bit != 1)
        return Step::Failed;
    bytes_.push_back(static_cast<uint8_t>(current_));
    current_ = 0;
    ones_ = 0;
    if (bytes_.size() == 1) {
        const int size = MessageSize(bytes_[0]);
        if (size > kMaxMessage)
            return Step::Failed;
        expected_ = static_cast<size_t>(size) + 2;
    }
    if (bytes_.size() < expected_)
        return Step::More;
    uint8_t sum = 0;
    for (uint8_t b : bytes_)
        sum ^= b;
    if (sum != 0)
        return Step::Failed;
    frame_ = AskWireFrame{};
    frame_.bytes = bytes_;
    frame_.firstSample = static_cast<uint64_t>(std::max(0.0, std::round(first_)));
    frame_.startBitSample = static_cast<uint64_t>(std::max(0.0, std::round(startBit_)));
    // The newest transition is the stop bit's half-bit one; the bit ends half a bit later.
    frame_.endSample = static_cast<uint64_t>(std::max(0.0, std::round(At(static_cast<double>(last_ + 1)))));
    frame_.samplesPerBit = 2.0 * h_;
    frame_.bits = bits_;
    frame_.drift = drift_;
    return Step::Frame;
}

// ---------------------------------------------------------------------------
// AskWireReader

AskWireReader::AskWireReader()
{
    window_.reserve(kLevelWindow);
}

void AskWireReader::Reset()
{
    *this = AskWireReader();
}

std::vector<AskWireFrame> AskWireReader::Take()
{
    std::vector<AskWireFrame> out;
    out.swap(out_);
    return out;
}

std::vector<AskWireFrame> AskWireReader::TakeFailed()
{
    std::vector<AskWireFrame> out;
    out.swap(failed_);
    return out;
}

uint64_t AskWireReader::SettledThrough() const
{
    uint64_t s = settled_;
    for (const AskWireFrame& f : out_)
        s = std::min(s, f.firstSample);
    for (const AskWireFrame& f : failed_)
        s = std::min(s, f.firstSample);
    return s;
}

void AskWireReader::Feed(const int32_t* samples, size_t n, uint64_t first)
{
    if (n == 0)
        return;
    if (state_ != State::Fresh && first != next_) {
        // Samples lost or a new capture: whatever was under way is gone. A
        // number below the expected one starts a new count.
        if (first < next_)
            settled_ = first;
        bits_.Clear();
        window_.clear();
        state_ = State::Fresh;
    }
    if (state_ == State::Fresh)
        Settle(first);
    for (size_t i = 0; i < n; ++i) {
        const int32_t x = samples[i];
        const uint64_t number = first + i;
        switch (state_) {
        case State::Fresh:
            Start(x, number);
            break;
        case State::Idle:
            Idle(x, number);
            break;
        case State::Levels:
            Levels(x, number);
            break;
        case State::Active:
            Active(x, number);
            break;
        }
    }
    next_ = first + n;

    const uint64_t lagged = next_ > kSettleLag ? next_ - kSettleLag : 0;
    switch (state_) {
    case State::Fresh:
    case State::Idle:
        Settle(lagged);
        break;
    case State::Levels:
        Settle(std::min(lagged, windowFirst_));
        break;
    case State::Active:
        if (bits_.Running() && !blocked_)
            Settle(std::min(lagged, static_cast<uint64_t>(std::max(0.0, std::floor(bits_.RunStart())))));
        else
            Settle(lagged);
        break;
    }
}

void AskWireReader::Start(int32_t x, uint64_t n)
{
    ToIdle(x);
    dev16_ = 0;
    warmUp_ = kFreshWarmUp;
    Idle(x, n);
}

void AskWireReader::ToIdle(int32_t level)
{
    state_ = State::Idle;
    base16_ = static_cast<int64_t>(level) * 16;
    ringCount_ = 0;
    over_ = 0;
    warmUp_ = kWarmUp;
    bits_.Clear();
}

// The hot path: most samples are idle. The idle level and the mean deviation
// around it follow the envelope slowly; two samples in a row beyond the
// threshold on the same side start a look at the levels.
void AskWireReader::Idle(int32_t x, uint64_t n)
{
    ring_[n % kLookBack] = x;
    if (ringCount_ < kLookBack)
        ++ringCount_;
    const int64_t d16 = static_cast<int64_t>(x) * 16 - base16_;
    if (warmUp_ > 0) {
        --warmUp_;
        base16_ += d16 / 8;
        dev16_ += (std::abs(d16) - dev16_) / 8;
        return;
    }
    const int64_t threshold16 = std::max<int64_t>(kMinThreshold * 16, kDevFactor * dev16_);
    if (d16 > threshold16) {
        over_ = over_ > 0 ? over_ + 1 : 1;
    } else if (d16 < -threshold16) {
        over_ = over_ < 0 ? over_ - 1 : -1;
    } else {
        over_ = 0;
        base16_ += d16 / 16;
        dev16_ += (std::abs(d16) - dev16_) / 16;
        return;
    }
    if (over_ > -2 && over_ < 2)
        return;
    polarity_ = over_ > 0 ? 1 : -1;
    over_ = 0;
    window_.clear();
    windowFirst_ = n + 1 - static_cast<uint64_t>(ringCount_);
    for (uint64_t m = windowFirst_; m <= n; ++m)
        window_.push_back(ring_[m % kLookBack]);
    state_ = State::Levels;
}

// Collects a few bits' worth of samples, then puts the modulated level at the
// quartile nearest the modulated side (a preamble spends about half its time
// there), the threshold halfway between it and the idle level, and runs the
// crossing detector over the collected samples.
void AskWireReader::Levels(int32_t x, uint64_t n)
{
    window_.push_back(x);
    if (window_.size() < kLevelWindow)
        return;
    idleLevel_ = static_cast<int32_t>(base16_ / 16);
    // The side the envelope went first is not always the modulated one (an
    // edge that overshoots the idle level before it falls): the modulated
    // level is the quartile, above or below, that lies further from idle.
    std::vector<int32_t> sorted(window_);
    const auto upper = sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 4);
    std::nth_element(sorted.begin(), upper, sorted.end(), std::greater<int32_t>());
    const int32_t high = *upper;
    const auto lower = sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 4);
    std::nth_element(sorted.begin(), lower, sorted.end());
    const int32_t low = *lower;
    polarity_ = high - idleLevel_ >= idleLevel_ - low ? 1 : -1;
    const int32_t modulated = polarity_ > 0 ? high : low;
    for (int32_t& v : sorted)
        v *= polarity_;
    swing_ = (modulated - idleLevel_) * polarity_;
    if (swing_ < kMinSwing || static_cast<int64_t>(swing_) * 16 < kDevSwing * dev16_) {
        // A step of the idle level, or noise: idle again at the median.
        const auto middle = sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2);
        std::nth_element(sorted.begin(), middle, sorted.end());
        ToIdle(*middle * polarity_);
        return;
    }
    const int64_t mid2 = 2 * static_cast<int64_t>(idleLevel_) + polarity_ * static_cast<int64_t>(swing_);
    mid3_ = mid2 * 3 / 2;
    hyst3_ = 3 * static_cast<int64_t>(swing_) / 5;
    state_ = State::Active;
    warm_ = 0;
    high_ = false;
    blocked_ = false;
    locked_ = false;
    lastCrossing_ = windowFirst_;
    unlockedSince_ = windowFirst_;
    levelSum_[0] = levelSum_[1] = 0;
    levelCount_[0] = levelCount_[1] = 0;
    bits_.Clear();
    std::vector<int32_t> held;
    held.swap(window_);
    for (size_t i = 0; i < held.size() && state_ == State::Active; ++i)
        Active(held[i], windowFirst_ + i);
    held.clear();
    window_.swap(held);
}

// Three-sample sums against the midpoint with hysteresis. A transition is
// placed at the newest zero crossing before the hysteresis confirmed it,
// interpolated between the two sums around it.
void AskWireReader::Active(int32_t x, uint64_t n)
{
    if (warm_ < 2) {
        x2_ = x1_;
        x1_ = x;
        ++warm_;
        return;
    }
    const int64_t y3 = static_cast<int64_t>(x2_) + x1_ + x;  // centred on n - 1
    const int64_t z = polarity_ * (y3 - mid3_);
    // Samples well inside either level measure the swing that is reported.
    if (z > 2 * hyst3_) {
        levelSum_[1] += x1_;
        ++levelCount_[1];
    } else if (z < -2 * hyst3_) {
        levelSum_[0] += x1_;
        ++levelCount_[0];
    }
    x2_ = x1_;
    x1_ = x;
    if (warm_ == 2) {
        warm_ = 3;
        z1_ = z;
        crossing_ = static_cast<double>(n - 1);
    }
    if (!high_ ? (z > 0 && z1_ <= 0) : (z <= 0 && z1_ > 0))
        crossing_ = static_cast<double>(n - 2) + static_cast<double>(z1_) / static_cast<double>(z1_ - z);
    z1_ = z;

    if (!high_ ? z > hyst3_ : z < -hyst3_) {
        high_ = !high_;
        lastCrossing_ = n;
        if (!blocked_)
            Finish(bits_.Edge(crossing_));
    } else if (bits_.Running() && static_cast<double>(n) > bits_.Deadline()) {
        Finish(bits_.Expire());
    }
    // Back to idle once a packet has ended and the envelope is quiet, or when
    // no preamble has been found for a while (noise or a step of the level).
    if (!blocked_) {
        const bool locked = bits_.Locked();
        if (locked_ && !locked)
            unlockedSince_ = n;
        locked_ = locked;
    }
    const bool quiet = n - lastCrossing_ > kQuiet;
    if (blocked_ ? quiet : !locked_ && (quiet || n - unlockedSince_ > kLockWait))
        ToIdle(static_cast<int32_t>(y3 / 3));
}

void AskWireReader::Finish(AskWireBitReader::Step step)
{
    if (step == AskWireBitReader::Step::More)
        return;
    if (step == AskWireBitReader::Step::Frame) {
        AskWireFrame f = bits_.TakeFrame();
        f.polarity = polarity_;
        f.swing = swing_;
        if (levelCount_[0] > 0 && levelCount_[1] > 0)
            f.swing = static_cast<int32_t>(std::llround(
                std::abs(static_cast<double>(levelSum_[1]) / static_cast<double>(levelCount_[1]) -
                         static_cast<double>(levelSum_[0]) / static_cast<double>(levelCount_[0]))));
        out_.push_back(std::move(f));
    } else {
        AskWireFrame f = bits_.TakeFailed();
        if (!f.bits.empty()) {
            f.polarity = polarity_;
            f.swing = swing_;
            failed_.push_back(std::move(f));
        }
    }
    bits_.Clear();
    blocked_ = true;
}
