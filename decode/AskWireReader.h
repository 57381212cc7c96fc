// A second reader of the receiver's ASK envelope, independent of the burst
// cutter and the list decoder: it reads every sample the ASK stream parser
// delivers, in capture order, and gives back the packets whose start bits,
// parity bits, stop bits and checksum all hold.
//
// (The method and the evidence for it are described in AskWireReader.cpp.)
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

// One packet read off the envelope.
struct AskWireFrame {
    std::vector<uint8_t> bytes;  // header, message bytes, checksum
    uint64_t firstSample = 0;    // number of the sample at the preamble's first transition
    uint64_t startBitSample = 0; // number of the sample where the header's start bit begins
    uint64_t endSample = 0;      // number of the sample where the checksum's stop bit ends
    double samplesPerBit = 0.0;  // bit period measured over the packet, in samples
    int polarity = 0;            // +1 when the modulated level lies above the idle level, -1 below
    int32_t swing = 0;           // modulated minus idle level as measured (absolute value)
    // The bits as read from the header's start bit on (0 or 1 each): every
    // bit of the packet for a good frame, those read before the failure for
    // a packet that did not check.
    std::vector<uint8_t> bits;
    // Largest distance of a transition of the packet from the bit clock, in
    // half bits (0 .. kMaxDrift): how firmly the signal holds the reading.
    double drift = 0.0;
    // False for a packet whose start bit was found but which did not check
    // (bytes then holds the bytes read whole before the failure).
    bool good = true;
};

// The second stage of the reader, on its own: the transition times of the
// envelope in, checked frames out. It finds a preamble (a run of transitions
// half a bit apart), measures the bit period on it, follows the bit clock
// through the packet and checks start bits, parity, stop bits, the length
// rule and the checksum. AskWireReader feeds it from its level crossings; the
// comparison tool in bench/ feeds it from another edge finder.
class AskWireBitReader {
public:
    enum class Step {
        More,    // nothing finished yet
        Frame,   // a frame has been read: TakeFrame()
        Failed,  // a packet whose bytes had begun did not check
    };

    AskWireBitReader();

    // Half bits of preamble (transitions half a bit apart) a start bit needs
    // before it: 21 by default, more than data bytes ever hold in a row, so
    // that the reader can't lock onto the middle of a packet. Fewer serve
    // only where the reading starts in the idle before a packet and is held
    // against another reader's (not fewer than the 8 gathered to find it).
    void SetMinPreambleHalves(long halves);

    // Forgets the run under way.
    void Clear();

    // A transition of the envelope at time t (fractional sample number, later
    // than every earlier one).
    Step Edge(double t);

    // Past this time without a transition, the run under way has ended: call
    // Expire. Infinite while no run is under way.
    double Deadline() const { return deadline_; }
    Step Expire();

    // True once a start bit has been found: from here on a failure is final
    // for the packet.
    bool InBytes() const { return phase_ == Phase::Bytes || phase_ == Phase::Trailer; }
    // True while transitions are being gathered or followed.
    bool Running() const { return phase_ != Phase::None; }
    // True while a preamble or a packet is being followed.
    bool Locked() const { return phase_ != Phase::None && phase_ != Phase::Gather; }
    // Time of the first transition of the run under way (when Running()).
    double RunStart() const;

    AskWireFrame TakeFrame() { return std::move(frame_); }
    // After Step::Failed: what had been read of the packet (good false).
    AskWireFrame TakeFailed() { return std::move(failed_); }

    // A transition further than this from the bit clock (in half bits) does
    // not belong to the packet: the reading stops there.
    static constexpr double kMaxDrift = 0.45;

    // Number of message bytes behind a header by the Qi length rule.
    static int MessageSize(uint8_t header);

private:
    // Trailer: every byte the header announces has been read and checks; the
    // envelope must now fall quiet (one transition back to idle at most)
    // before the frame is given out.
    enum class Phase { None, Gather, Preamble, Bytes, Trailer };
    static constexpr int kGather = 8;

    void StartRun(double t);
    void AddPoint(long k, double t);
    double At(double k) const { return t0_ + a_ + h_ * k; }
    long Nearest(double t) const;
    void SetDeadline();
    Step Bit(int bit);
    // Keeps what was read of a packet that failed, then forgets the run.
    void Fail();
    // Distance of a transition at t from half bit k of the clock, in half
    // bits; the packet's largest so far is kept.
    bool Fits(long k, double t);

    long minPreambleHalves_;
    Phase phase_ = Phase::None;
    double deadline_ = 0.0;
    double gather_[kGather] = {};
    int gathered_ = 0;
    // Exponentially weighted straight-line fit t - t0 = a + h * k over the
    // run's transitions, k counting half bits from the run's first transition.
    double t0_ = 0.0, a_ = 0.0, h_ = 0.0;
    double s0_ = 0.0, s1_ = 0.0, s2_ = 0.0, u0_ = 0.0, u1_ = 0.0;
    double second_ = 0.0;   // time of the run's second transition
    double previous_ = 0.0; // time of the newest transition
    long last_ = 0;         // half-bit index of the newest transition
    long boundary_ = 0;     // half-bit index where the current bit began
    long trailer_ = 0;      // half-bit index of the checksum's stop bit's middle transition
    bool returned_ = false; // the transition back to idle after it has come
    double startBit_ = 0.0; // where the header's start bit began
    double first_ = 0.0;    // where the preamble began
    // Byte assembly.
    int position_ = 0;  // 0 start bit, 1..8 data, 9 parity, 10 stop
    int current_ = 0;
    int ones_ = 0;
    size_t expected_ = 0;
    std::vector<uint8_t> bytes_;
    std::vector<uint8_t> bits_;
    double drift_ = 0.0;
    AskWireFrame frame_;
    AskWireFrame failed_;
};

class AskWireReader {
public:
    AskWireReader();

    // Feeds n samples numbered first, first + 1, ... (the numbering of the ASK
    // stream parser, one number per 25 microseconds). Numbers continue from
    // the previous call; a call whose first number is not the next one
    // (samples lost, or a new capture) drops any packet in progress.
    void Feed(const int32_t* samples, size_t n, uint64_t first);

    // The packets finished since the last call, oldest first.
    std::vector<AskWireFrame> Take();
    // The packets whose start bit was found but which did not check, since
    // the last call, oldest first (good false): what the signal showed of
    // them, for judging another reader's reading of the same span.
    std::vector<AskWireFrame> TakeFailed();

    // Every packet that begins before this sample number has been given out by
    // Take or will never be: the reader has looked past it.
    uint64_t SettledThrough() const;

    // Forgets everything, as at the start of a capture.
    void Reset();
    // See AskWireBitReader::SetMinPreambleHalves.
    void SetMinPreambleHalves(long halves) { bits_.SetMinPreambleHalves(halves); }

private:
    enum class State { Fresh, Idle, Levels, Active };

    void Start(int32_t x, uint64_t n);
    void Idle(int32_t x, uint64_t n);
    void Levels(int32_t x, uint64_t n);
    void Active(int32_t x, uint64_t n);
    void ToIdle(int32_t level);
    void Finish(AskWireBitReader::Step step);
    void Settle(uint64_t s) { if (s > settled_) settled_ = s; }

    static constexpr int kLookBack = 8;  // samples kept before a departure from idle

    State state_ = State::Fresh;
    uint64_t next_ = 0;  // number expected at the next sample
    uint64_t settled_ = 0;

    // Idle: level and mean deviation in sixteenths, last samples in a ring.
    int64_t base16_ = 0;
    int64_t dev16_ = 0;
    int32_t ring_[kLookBack] = {};
    int ringCount_ = 0;
    int over_ = 0;      // consecutive samples beyond the threshold, signed by side
    int warmUp_ = 0;    // idle samples still to measure before a look may start
    int polarity_ = 0;

    // Levels: the samples since shortly before the departure.
    std::vector<int32_t> window_;
    uint64_t windowFirst_ = 0;

    // Active: three-sample sums against the midpoint between the two levels.
    int32_t idleLevel_ = 0;
    int32_t swing_ = 0;
    int64_t mid3_ = 0;
    int64_t hyst3_ = 0;
    int32_t x1_ = 0, x2_ = 0;   // the two previous samples
    int warm_ = 0;              // samples seen in Active, up to 2
    int64_t z1_ = 0;            // previous signed distance from the midpoint
    bool high_ = false;         // hysteresis state: on the modulated side
    double crossing_ = 0.0;     // newest zero crossing in the pending direction
    uint64_t lastCrossing_ = 0;
    bool blocked_ = false;      // after a packet: wait for quiet
    bool locked_ = false;       // the bit reader follows a preamble or packet
    uint64_t unlockedSince_ = 0;
    int64_t levelSum_[2] = {};  // idle side, modulated side
    int64_t levelCount_[2] = {};
    AskWireBitReader bits_;
    std::vector<AskWireFrame> out_;
    std::vector<AskWireFrame> failed_;
};
