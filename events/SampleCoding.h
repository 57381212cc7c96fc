// Lossless coding of a record's sample series as bits: each value is
// predicted from the values before it by a fixed polynomial of order 1 to 6
// (its k-th difference), and the differences are written as Rice codes. The
// order and the Rice parameter are chosen per block of 32 values, whichever
// gives the fewest bits, so that a block on a smooth stretch of the envelope
// takes a high order and one over an edge or over the carrier's jumping
// period words a low one.
//
// Block layout: a head, as one bit 1 when it is the head of the block before
// in the same series, else a bit 0 and a byte with the order in its low three
// bits (1 to 6) and the Rice parameter p (0 to 31) in its high five; then per
// value the zigzag of its difference z as q = z >> p ones and a zero, then
// the low p bits of z; a value with q of 32 or more is written as 32 ones,
// six bits of its length L - 1 and its L bits. The first value of a series with no values before it
// is written on its own the same way with p = 0 (a plain value).
//
// Bits are packed from the lowest bit of each byte up; the end of the last
// series is padded with zeros to a whole byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

class BitWriter {
public:
    explicit BitWriter(std::vector<uint8_t>& out) : m_out(out) {}
    ~BitWriter() { Flush(); }
    BitWriter(const BitWriter&) = delete;
    BitWriter& operator=(const BitWriter&) = delete;
    // The low `n` bits of `v` (n up to 64).
    void Put(uint64_t v, unsigned n);
    void Ones(unsigned n);
    // Pads the last byte with zeros and writes it out.
    void Flush();

private:
    std::vector<uint8_t>& m_out;
    uint64_t m_acc = 0;
    unsigned m_bits = 0;
};

class BitReader {
public:
    BitReader(const uint8_t* p, size_t n) : m_p(p), m_n(n) {}
    // False when the bits run out.
    bool Get(unsigned n, uint64_t& v);
    bool Bit(unsigned& b);
    // Bytes begun so far (the last one perhaps partly).
    size_t BytesUsed() const { return (m_bit + 7) / 8; }
    // True when what is left of the last byte begun is zeros and no byte
    // follows: the bits were read to their end.
    bool AtPaddedEnd() const;

private:
    const uint8_t* m_p;
    size_t m_n;
    size_t m_bit = 0;
};

namespace samplecoding {

constexpr size_t kBlock = 32;
constexpr unsigned kMaxOrder = 6;

// Writes s[from..to) with s[0..from) as the values before it.
void PutSeries(BitWriter& out, const int32_t* s, size_t from, size_t to);
// Reads back into s[from..to); s[0..from) must hold the values before.
// False on bits that run out or do not make values of 32 bits.
bool GetSeries(BitReader& in, int32_t* s, size_t from, size_t to);

}  // namespace samplecoding
