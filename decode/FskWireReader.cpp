// FskWireReader: the transmitter's FSK packets and response patterns read off
// every period word.
//
// A word is the duration of 16 carrier cycles. FSK bits are counted in carrier
// cycles too (512 or 128 a bit), whatever the two periods are, so the reader
// keeps its time in cycles: word k spans cycles 16k to 16k + 16, and a bit
// lies on that grid exactly, only not aligned with it. No bit clock has to be
// recovered; what has to be found is where the modulation changes.
//
// The carrier. Between packets the reader follows the unmodulated period with
// a slow mean and the mean deviation of the words around it. Words within
// four mean deviations (18 ticks at least) are carrier; three words in a row
// beyond it on one side start a packet (a lone word beyond it is noise). The carrier is first taken from eight
// words that agree within 40 ticks and lie in the configured band (its edges
// included, with the word's rounding and a quarter percent allowed for), and a
// packet may start only after 40 quiet words (one bit and a quarter at 512
// cycles a bit), so that a reader that begins inside a packet waits for its
// end.
//
// The two levels. The second and third departing words are wholly inside the
// first half bit (a half bit is at least four words), so their mean is the
// modulated period. From there every word is given its share of modulated
// cycles, f = (w - unmodulated) / (modulated - unmodulated): 0 on the carrier,
// 1 on the modulated period, in between for a word that holds a change. Both
// levels keep following the words that sit on them, so a slow drift of the
// operating frequency is followed through a long packet. A deep modulation is
// simply a larger difference between the levels: it is never mistaken for an
// unstable carrier, and nothing about it needs the band.
//
// The changes. A slicer with hysteresis (up above 0.65, down below 0.35) finds
// the word of each change; the change itself is placed from the shares of
// that word, the two before it and the one after: over four words that hold
// one change, the modulated cycles are the distance from the change to the
// window's end (or start). That places a change to a cycle or two, wherever
// the grid lies, and still when noise let the slicer see it a word late.
// (With three words, one on each side, a change that noise let the slicer see
// a word late fell outside the window.)
//
// The bits. The first change is the start of the first bit (the carrier is
// the unmodulated state, and every bit begins with a change). The first
// interval tells the bit length: intervals are 64 or 128 cycles at 128 cycles
// a bit, 256 or 512 at 512. The transmitter counts its cycles, so every change
// lies on the grid of half bits from the first one: each change is put on the
// nearest line of that grid (shifted by the mean offset the changes so far
// have shown), and must lie within 30 % of half a bit of it. One half bit on
// from the last change and then another are a one, a whole bit is a zero, a
// lone half followed by a whole is an error. Rounding to the grid, rather than
// judging each interval by itself, halves the error of an interval (one
// placement instead of two) and carries no error from one change to the
// next. Measured over every frequency, depth, polarity and both bit lengths
// below with 6 ticks of jitter instead of 2: 97.8 % of the packets read with
// each interval judged by itself, 99.0 % on the grid (every loss at 128 cycles
// a bit and the smallest depth, where a word's jitter is an eighth of the
// depth); with 4 ticks, 100 %. No preamble and no lead-in are needed; ones
// before the first zero are taken as a lead-in.
//
// The end. The packet is over when two and a half half-bits pass without a
// change; the modulation must then be off (a level that stays modulated is a
// carrier that moved, and the carrier is looked for anew). The last bit ends
// on the carrier with no change to mark its end: after a change in the middle
// of a bit that bit is a one; after a change at a bit boundary there is either
// nothing more or one more zero, and the length decides, since a response
// pattern has eight bits and a packet a whole number of eleven-bit bytes
// after its lead-in. A frame is given out only once the carrier has stayed
// quiet for another 40 words: a change lost in noise in the middle of a
// packet looks like its end, and the first bits of a packet with header 0x00
// are eight zeros, a NAK, until the packet goes on.
//
// The checks, with no forgiveness: eight bits must be one of the response
// patterns (ACK 11111111, NAK 00000000, ND 01010101, and the patterns of the
// table MPP 10001000, ATN 11001100, APP 11110000); otherwise every byte must
// have its start bit 0, its parity bit equal to the XOR of its data bits, its
// stop bit 1, the number of bytes must be what the header's length rule says,
// and the XOR of all bytes must be 0. Any word of 0 or 0xFFFF (no carrier)
// ends a packet under way without a frame and the carrier is looked for anew
// (a frame already read stands); so does a word far outside both levels.
//
// Measured (tests/events/FskBothReadersTest, every transmitter header and the
// ACK, NAK and ND patterns at 110, 128, 145, 175 and 205 kHz, the depths
// 46.75, 78, 140.5 and 265.5 ns in both polarities, 512 and 128 cycles a bit,
// each packet at a random offset against the grid, 2 ticks of jitter, 100 Hz/s
// of drift, no lead-in): merged with the frame decoder 2400 of 2400 exact and
// nothing that was not sent; the frame decoder alone 801 of 2400 (33 %, and 44
// frames that were not sent), 0 to 3 % at 128 cycles a bit. Speed (one core, bench/FskWireReaderBench): about
// 110 M words a second (RelWithDebInfo, a shared machine), where a carrier
// sends some 10 thousand.
#include "decode/FskWireReader.h"
#include "decode/MessageLength.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr int kAcquireWords = 8;        // words that must agree before a carrier is taken
constexpr double kAcquireSpread = 40.0; // ... within this many ticks of their mean
constexpr double kMinStep = 18.0;       // least departure from the carrier that counts
constexpr double kDevFactor = 4.0;      // ... or this many mean deviations
constexpr int kDepartWords = 3;         // departing words in a row that start a packet
constexpr double kMinDepth = 28.0;      // ticks per word between the levels, least
constexpr double kMaxDepth = 900.0;     // ... and most (more is a carrier that jumped)
constexpr int kQuietWords = 40;         // carrier words before a packet may start
constexpr int kMovedWords = 48;         // words on one side that make a new carrier
constexpr double kUp = 0.65, kDown = 0.35;
constexpr double kOnLevel = 0.15;       // share within which a word sits on a level
constexpr double kWild = 0.75;          // a share this far outside 0..1 is no FSK word
constexpr double kTolerance = 0.3;      // of half a bit, off the grid line
constexpr double kEndHalves = 2.5;      // half bits without a change that end a packet
constexpr double kEndUnknown = 640.0;   // cycles, before the bit length is known
constexpr size_t kMaxBits = 64 + 30 * 11;
constexpr int64_t kBackwards = 60000LL * 10;  // a time 10 ms behind is a new capture

}  // namespace

FskWireReader::FskWireReader(int32_t minFreqHz, int32_t maxFreqHz)
{
    const double lowHz = minFreqHz > 0 ? minFreqHz : 110000;
    const double highHz = maxFreqHz > 0 ? maxFreqHz : 210000;
    const double longest = 960000000.0 / std::min(lowHz, highHz);
    const double shortest = 960000000.0 / std::max(lowHz, highHz);
    maxPeriod_ = static_cast<int32_t>(std::ceil(longest * 1.0025)) + 1;
    minPeriod_ = static_cast<int32_t>(std::floor(shortest / 1.0025)) - 1;
    Reset();
}

void FskWireReader::Reset()
{
    state_ = State::NoCarrier;
    count_ = 0;
    fresh_ = 0;
    lastTicks_ = 0;
    settled_ = 0;
    carrier_ = deviation_ = 0.0;
    departs_ = 0;
    quiet_ = 0;
    pending_ = false;
    held_ = false;
    out_.clear();
}

bool FskWireReader::PatternByte(uint8_t bits, uint8_t& byte)
{
    switch (bits) {
    case 0xFF:  // ACK
    case 0x00:  // NAK
    case 0x88:  // MPP
    case 0xCC:  // ATN
    case 0xF0:  // APP
        byte = bits;
        return true;
    case 0x55:  // ND, which the pattern table names by 0xBB
        byte = 0xBB;
        return true;
    default:
        return false;
    }
}

int FskWireReader::MessageSize(uint8_t header)
{
    return QiMessageLength(header);
}

std::vector<FskWireFrame> FskWireReader::Take()
{
    std::vector<FskWireFrame> out;
    out.swap(out_);
    return out;
}

void FskWireReader::Feed(const uint16_t* words, const int64_t* ticks, size_t n)
{
    for (size_t i = 0; i < n; ++i)
        Feed(words[i], ticks[i]);
}

void FskWireReader::Feed(uint16_t word, int64_t ticks)
{
    if (count_ > 0 && ticks < lastTicks_ - kBackwards) {
        std::vector<FskWireFrame> keep;
        keep.swap(out_);
        Reset();
        keep.swap(out_);
    }
    const uint64_t k = count_++;
    words_[k % kRing] = word;
    ends_[k % kRing] = ticks;
    lastTicks_ = ticks;
    if (word == 0 || word == 0xFFFF) {
        // No carrier: a frame read before it stands (the carrier stopped after
        // it); whatever was under way is over, with nothing to show.
        if (held_) {
            out_.push_back(std::move(heldFrame_));
            held_ = false;
        }
        LoseCarrier();
        Settle(ticks);
        return;
    }
    switch (state_) {
    case State::NoCarrier:
        NoCarrierWord(k);
        break;
    case State::Carrier:
        CarrierWord(word, k);
        break;
    case State::Packet:
        PacketWord(word, k);
        break;
    }
}

void FskWireReader::Settle(int64_t ticks)
{
    // Not past a frame that is still held.
    if (held_ && ticks > heldFrame_.startTicks)
        ticks = heldFrame_.startTicks;
    if (ticks > settled_)
        settled_ = ticks;
}

void FskWireReader::Release(uint64_t k)
{
    out_.push_back(std::move(heldFrame_));
    held_ = false;
    if (k >= 1)
        Settle(StartTicks(k));
}

// The start of word j (the end of the word before it).
int64_t FskWireReader::StartTicks(uint64_t j) const
{
    return EndTicks(j) - W(j);
}

void FskWireReader::LoseCarrier()
{
    held_ = false;
    state_ = State::NoCarrier;
    fresh_ = 0;
    departs_ = 0;
    quiet_ = 0;
    pending_ = false;
}

void FskWireReader::NoCarrierWord(uint64_t k)
{
    if (k >= 1)
        Settle(StartTicks(k));
    fresh_ += 1;
    if (fresh_ < static_cast<uint64_t>(kAcquireWords))
        return;
    double sum = 0.0;
    for (int i = 0; i < kAcquireWords; ++i)
        sum += W(k - static_cast<uint64_t>(i));
    const double mean = sum / kAcquireWords;
    double spread = 0.0, deviation = 0.0;
    for (int i = 0; i < kAcquireWords; ++i) {
        const double d = std::fabs(W(k - static_cast<uint64_t>(i)) - mean);
        spread = std::max(spread, d);
        deviation += d;
    }
    if (spread > kAcquireSpread || mean < minPeriod_ || mean > maxPeriod_)
        return;
    state_ = State::Carrier;
    carrier_ = mean;
    deviation_ = std::max(1.0, deviation / kAcquireWords);
    departs_ = 0;
    quiet_ = 0;
}

void FskWireReader::CarrierWord(int32_t w, uint64_t k)
{
    const double d = w - carrier_;
    const double threshold = std::max(kMinStep, kDevFactor * deviation_);
    if (std::fabs(d) <= threshold) {
        carrier_ += d / 16.0;
        deviation_ += (std::fabs(d) - deviation_) / 16.0;
        departs_ = 0;
        if (quiet_ < kQuietWords)
            quiet_ += 1;
        if (held_ && quiet_ >= kQuietWords)
            Release(k);
        if (carrier_ < minPeriod_ || carrier_ > maxPeriod_)
            LoseCarrier();
        // A packet found later begins in the next word at the earliest.
        if (k >= 1)
            Settle(StartTicks(k));
        return;
    }
    const int sign = d > 0 ? 1 : -1;
    if (departs_ == 0 || sign != departSign_) {
        departs_ = 1;
        departSign_ = sign;
        departFirst_ = k;
        quietBefore_ = quiet_;
        // A lone word off the carrier is noise: the quiet goes on counting.
        if (quiet_ < kQuietWords)
            quiet_ += 1;
    } else {
        departs_ += 1;
        // Two in a row are modulation (a packet's shortest stretch is four).
        quiet_ = 0;
    }
    // Modulation again before the carrier was quiet: what was read was not a
    // whole packet.
    if (held_ && departs_ >= kDepartWords)
        held_ = false;
    // A packet starts only after enough carrier: otherwise this may be the
    // rest of a packet that was not read from its start.
    if (departs_ == kDepartWords && quietBefore_ >= kQuietWords) {
        StartPacket(k);
        return;
    }
    // Longer on one side than any modulated stretch of a packet: the carrier
    // moved, and is taken anew.
    if (departs_ > kMovedWords)
        LoseCarrier();
}

void FskWireReader::StartPacket(uint64_t k)
{
    // The second and third departing words lie wholly in the first half bit.
    const double modulated = (static_cast<double>(W(k - 1)) + W(k)) / 2.0;
    const double depth = modulated - carrier_;
    if (std::fabs(depth) > kMaxDepth) {
        // No modulation this large: the carrier moved.
        LoseCarrier();
        return;
    }
    if (std::fabs(depth) < kMinDepth)
        return;  // too shallow for a packet; if it stays, the carrier moved
    state_ = State::Packet;
    level0_ = carrier_;
    level1_ = modulated;
    scale_ = 1.0 / (level1_ - level0_);
    high_ = false;
    pending_ = false;
    transitions_ = 0;
    half_ = 0.0;
    halfPending_ = false;
    bits_.clear();
    packetFirst_ = departFirst_;
    // The words from two before the first departure on, again, as packet
    // words.
    const uint64_t from = departFirst_ >= 2 ? departFirst_ - 2 : 0;
    for (uint64_t j = from; j <= k && state_ == State::Packet; ++j)
        PacketWord(W(j), j);
}

void FskWireReader::PacketWord(int32_t w, uint64_t k)
{
    const double f = (w - level0_) * scale_;
    f_[k % kRing] = f;
    if (f < -kWild || f > 1.0 + kWild) {
        // No word of this packet: a carrier that jumped or garbage.
        LoseCarrier();
        return;
    }
    if (pending_ && k == pendingWord_ + 1) {
        pending_ = false;
        const uint64_t j = pendingWord_;
        const double before = pendingRising_ ? 0.0 : 1.0;
        const double first = j >= 2 ? f_[(j - 2) % kRing] : before;
        const double second = j >= 1 ? f_[(j - 1) % kRing] : before;
        const double sum = first + second + f_[j % kRing] + f;
        const double lo = 16.0 * (static_cast<double>(j) - 2.0);
        double position = pendingRising_ ? lo + 64.0 - 16.0 * sum : lo + 16.0 * sum;
        position = std::clamp(position, lo, lo + 64.0);
        Transition(position, k);
        if (state_ != State::Packet)
            return;
    }
    if (!high_ && f > kUp) {
        high_ = true;
        pending_ = true;
        pendingRising_ = true;
        pendingWord_ = k;
    } else if (high_ && f < kDown) {
        high_ = false;
        pending_ = true;
        pendingRising_ = false;
        pendingWord_ = k;
    } else if (!pending_) {
        // Both levels follow the words that sit on them.
        bool moved = false;
        if (high_ && std::fabs(f - 1.0) < kOnLevel) {
            level1_ += (w - level1_) / 8.0;
            moved = true;
        } else if (!high_ && std::fabs(f) < kOnLevel) {
            level0_ += (w - level0_) / 16.0;
            moved = true;
        }
        if (moved && std::fabs(level1_ - level0_) >= kMinDepth / 2)
            scale_ = 1.0 / (level1_ - level0_);
    }
    if (pending_)
        return;
    if (transitions_ == 0) {
        // The departure never became a change of level.
        if (k > packetFirst_ + 8)
            Fail();
        return;
    }
    const double since = 16.0 * static_cast<double>(k + 1) - lastCycle_;
    const double limit = half_ > 0.0 ? kEndHalves * half_ : kEndUnknown;
    if (since > limit) {
        if (high_)
            LoseCarrier();  // the level stays away: the carrier moved
        else
            Finish(k);
    }
}

int64_t FskWireReader::TicksAt(double cycle, uint64_t k) const
{
    const double oldest = count_ > kRing ? static_cast<double>(count_ - kRing) : 0.0;
    double c = std::clamp(cycle, 16.0 * oldest, 16.0 * static_cast<double>(k + 1));
    uint64_t j = static_cast<uint64_t>(c / 16.0);
    if (j > k)
        j = k;
    const double into = (c - 16.0 * static_cast<double>(j)) / 16.0;
    return StartTicks(j) + static_cast<int64_t>(std::llround(into * W(j)));
}

void FskWireReader::Transition(double position, uint64_t k)
{
    const int64_t ticks = TicksAt(position, k);
    if (transitions_ == 0) {
        transitions_ = 1;
        origin_ = lastCycle_ = position;
        offset_ = 0.0;
        lastHalf_ = 0;
        startTicks_ = lastChangeTicks_ = ticks;
        return;
    }
    if (half_ == 0.0)
        half_ = position - lastCycle_ < 172.0 ? 64.0 : 256.0;
    // Every change lies on the grid of half bits from the first one: the
    // nearest grid line, seen through the offset the changes so far have
    // shown, is where this one belongs.
    const double along = (position - origin_ - offset_) / half_;
    const long line = std::lround(along);
    const double off = position - origin_ - static_cast<double>(line) * half_;
    const long step = line - lastHalf_;
    if (std::fabs(along - static_cast<double>(line)) > kTolerance) {
        Fail();
        return;
    }
    if (step == 1) {
        if (halfPending_) {
            bits_.push_back(1);
            halfPending_ = false;
        } else {
            halfPending_ = true;
        }
    } else if (step == 2 && !halfPending_) {
        bits_.push_back(0);
    } else {
        Fail();
        return;
    }
    if (bits_.size() > kMaxBits) {
        Fail();
        return;
    }
    transitions_ += 1;
    offset_ += (off - offset_) / std::min(transitions_ - 1, 8);
    lastHalf_ = line;
    lastCycle_ = position;
    lastChangeTicks_ = ticks;
}

void FskWireReader::Fail()
{
    // Back on the carrier, which must be quiet again before the next packet:
    // this one's remaining bits must not be read as a packet of their own.
    state_ = State::Carrier;
    carrier_ = level0_;
    departs_ = 0;
    quiet_ = 0;
    pending_ = false;
}

void FskWireReader::Finish(uint64_t k)
{
    const int cyclesPerBit = static_cast<int>(2.0 * half_);
    const double ticksPerCycle = level0_ / 16.0;
    FskWireFrame frame;
    bool read = false;
    if (halfPending_) {
        // The change in the middle of the last bit: a one, whose second half
        // is the carrier.
        bits_.push_back(1);
        read = Decode(bits_, frame);
        if (read)
            frame.endTicks = lastChangeTicks_ + static_cast<int64_t>(std::llround(half_ * ticksPerCycle));
    } else {
        // Either the change ended the last bit, or a last zero follows on the
        // carrier.
        read = Decode(bits_, frame);
        if (read) {
            frame.endTicks = lastChangeTicks_;
        } else {
            bits_.push_back(0);
            read = Decode(bits_, frame);
            if (read)
                frame.endTicks = lastChangeTicks_ + static_cast<int64_t>(std::llround(2.0 * half_ * ticksPerCycle));
        }
    }
    // Back on the carrier, which must now stay quiet: for the frame to be
    // given out, and for the next packet to start.
    state_ = State::Carrier;
    carrier_ = level0_;
    departs_ = 0;
    quiet_ = 0;
    pending_ = false;
    if (read) {
        frame.startTicks = startTicks_;
        frame.cyclesPerBit = cyclesPerBit;
        frame.carrierPeriod = static_cast<int32_t>(std::lround(level0_));
        frame.modulatedPeriod = static_cast<int32_t>(std::lround(level1_));
        frame.polarity = level1_ > level0_ ? 1 : -1;
        heldFrame_ = std::move(frame);
        held_ = true;
    } else if (k >= 1) {
        Settle(StartTicks(k));
    }
}

bool FskWireReader::Decode(const std::vector<uint8_t>& bits, FskWireFrame& frame) const
{
    if (bits.size() == 8) {
        uint8_t value = 0;
        for (uint8_t b : bits)
            value = static_cast<uint8_t>((value << 1) | b);
        uint8_t byte = 0;
        if (!PatternByte(value, byte))
            return false;
        frame.pattern = true;
        frame.patternBits = value;
        frame.bytes.assign(1, byte);
        frame.leadOnes = 0;
        return true;
    }
    size_t lead = 0;
    while (lead < bits.size() && bits[lead] == 1)
        ++lead;
    const size_t rest = bits.size() - lead;
    if (rest < 33 || rest % 11 != 0)
        return false;
    std::vector<uint8_t> bytes;
    bytes.reserve(rest / 11);
    for (size_t at = lead; at < bits.size(); at += 11) {
        if (bits[at] != 0 || bits[at + 10] != 1)
            return false;
        uint8_t byte = 0, parity = 0;
        for (int i = 0; i < 8; ++i) {
            byte = static_cast<uint8_t>(byte | (bits[at + 1 + static_cast<size_t>(i)] << i));
            parity ^= bits[at + 1 + static_cast<size_t>(i)];
        }
        if (bits[at + 9] != parity)
            return false;
        bytes.push_back(byte);
    }
    if (static_cast<size_t>(MessageSize(bytes[0])) + 2 != bytes.size())
        return false;
    uint8_t x = 0;
    for (uint8_t b : bytes)
        x ^= b;
    if (x != 0)
        return false;
    frame.pattern = false;
    frame.bytes = std::move(bytes);
    frame.leadOnes = static_cast<int>(lead);
    return true;
}
