#include "events/SampleCoding.h"

#include <algorithm>
#include <limits>

void BitWriter::Put(uint64_t v, unsigned n)
{
    // Two halves, so that no shift is by 64.
    if (n > 32) {
        Put(v & 0xFFFFFFFFu, 32);
        Put(v >> 32, n - 32);
        return;
    }
    if (n < 32)
        v &= (uint64_t{1} << n) - 1;
    m_acc |= v << m_bits;
    m_bits += n;
    while (m_bits >= 8) {
        m_out.push_back(static_cast<uint8_t>(m_acc));
        m_acc >>= 8;
        m_bits -= 8;
    }
}

void BitWriter::Ones(unsigned n)
{
    while (n >= 32) {
        Put(0xFFFFFFFFu, 32);
        n -= 32;
    }
    if (n)
        Put((uint64_t{1} << n) - 1, n);
}

void BitWriter::Flush()
{
    if (m_bits)
        m_out.push_back(static_cast<uint8_t>(m_acc));
    m_acc = 0;
    m_bits = 0;
}

bool BitReader::Bit(unsigned& b)
{
    if (m_bit >= 8 * m_n)
        return false;
    b = (m_p[m_bit >> 3] >> (m_bit & 7)) & 1u;
    ++m_bit;
    return true;
}

bool BitReader::Get(unsigned n, uint64_t& v)
{
    if (n > 64 || 8 * m_n - m_bit < n)
        return false;
    v = 0;
    for (unsigned i = 0; i < n; ++i, ++m_bit)
        v |= static_cast<uint64_t>((m_p[m_bit >> 3] >> (m_bit & 7)) & 1u) << i;
    return true;
}

bool BitReader::AtPaddedEnd() const
{
    if (BytesUsed() != m_n)
        return false;
    for (size_t b = m_bit; b < 8 * m_n; ++b)
        if ((m_p[b >> 3] >> (b & 7)) & 1u)
            return false;
    return true;
}

namespace samplecoding {

namespace {

// Rice codes longer than this many ones are written as a length and bits.
constexpr unsigned kEscape = 32;

constexpr int64_t kBinomial[kMaxOrder + 1][kMaxOrder + 1] = {
    {1, 0, 0, 0, 0, 0, 0},    {1, 1, 0, 0, 0, 0, 0},     {1, 2, 1, 0, 0, 0, 0},  {1, 3, 3, 1, 0, 0, 0},
    {1, 4, 6, 4, 1, 0, 0},    {1, 5, 10, 10, 5, 1, 0},   {1, 6, 15, 20, 15, 6, 1},
};

uint64_t Zigzag(int64_t v)
{
    return (static_cast<uint64_t>(v) << 1) ^ (v < 0 ? ~uint64_t{0} : 0);
}

int64_t Unzigzag(uint64_t z)
{
    return static_cast<int64_t>((z >> 1) ^ ((z & 1) ? ~uint64_t{0} : 0));
}

unsigned BitLength(uint64_t v)
{
    return v ? 64u - static_cast<unsigned>(__builtin_clzll(v)) : 1u;
}

// The k-th difference at i, where i >= k: the value less the polynomial of
// order k through the k values before it. Samples are 32-bit and the
// coefficients at most 20, so the sum cannot leave 64 bits.
int64_t Difference(const int32_t* s, size_t i, unsigned k)
{
    int64_t d = 0;
    for (unsigned j = 0; j <= k; ++j) {
        const int64_t term = kBinomial[k][j] * static_cast<int64_t>(s[i - j]);
        d += (j & 1) ? -term : term;
    }
    return d;
}

uint64_t CodeBits(uint64_t z, unsigned p)
{
    const uint64_t q = z >> p;
    return q < kEscape ? q + 1 + p : kEscape + 6 + BitLength(z);
}

void PutCode(BitWriter& out, uint64_t z, unsigned p)
{
    const uint64_t q = z >> p;
    if (q < kEscape) {
        out.Ones(static_cast<unsigned>(q));
        out.Put(0, 1);
        out.Put(z, p);
        return;
    }
    const unsigned length = BitLength(z);
    out.Ones(kEscape);
    out.Put(length - 1, 6);
    out.Put(z, length);
}

bool GetCode(BitReader& in, unsigned p, uint64_t& z)
{
    unsigned q = 0, bit = 0;
    while (q < kEscape) {
        if (!in.Bit(bit))
            return false;
        if (!bit)
            break;
        ++q;
    }
    if (q < kEscape) {
        uint64_t low;
        if (!in.Get(p, low))
            return false;
        z = (static_cast<uint64_t>(q) << p) | low;
        return true;
    }
    uint64_t length;
    return in.Get(6, length) && in.Get(static_cast<unsigned>(length) + 1, z);
}

}  // namespace

void PutSeries(BitWriter& out, const int32_t* s, size_t from, size_t to)
{
    if (from >= to)
        return;
    if (from == 0) {
        PutCode(out, Zigzag(s[0]), 0);
        from = 1;
    }
    uint64_t z[kMaxOrder + 1][kBlock];
    unsigned before = 0;  // the head of the block before; none yet
    for (size_t begin = from; begin < to; begin += kBlock) {
        const size_t n = std::min(kBlock, to - begin);
        unsigned bestHead = 1;
        uint64_t bestBits = std::numeric_limits<uint64_t>::max();
        for (unsigned k = 1; k <= kMaxOrder; ++k) {
            uint64_t sum = 0;
            for (size_t i = 0; i < n; ++i) {
                const size_t at = begin + i;
                z[k][i] = Zigzag(Difference(s, at, std::min<size_t>(k, at)));
                sum += std::min<uint64_t>(z[k][i], uint64_t{1} << 40);
            }
            // Rice parameters near the one the mean suggests.
            const unsigned guess = BitLength(sum / n);
            for (unsigned p = guess > 2 ? guess - 2 : 0; p <= std::min(31u, guess + 1); ++p) {
                const unsigned head = k | (p << 3);
                uint64_t bits = head == before ? 1 : 9;
                for (size_t i = 0; i < n; ++i)
                    bits += CodeBits(z[k][i], p);
                if (bits < bestBits) {
                    bestBits = bits;
                    bestHead = head;
                }
            }
        }
        if (bestHead == before) {
            out.Put(1, 1);
        } else {
            out.Put(0, 1);
            out.Put(bestHead, 8);
        }
        before = bestHead;
        const unsigned k = bestHead & 7u, p = bestHead >> 3;
        for (size_t i = 0; i < n; ++i)
            PutCode(out, z[k][i], p);
    }
}

bool GetSeries(BitReader& in, int32_t* s, size_t from, size_t to)
{
    if (from >= to)
        return true;
    auto place = [&](size_t at, int64_t difference, unsigned k) {
        // The value is the difference plus the polynomial's prediction, in
        // wrapping arithmetic: bits that do not come from 32-bit samples
        // give a value outside them and are refused.
        uint64_t v = static_cast<uint64_t>(difference);
        for (unsigned j = 1; j <= k; ++j) {
            const uint64_t term = static_cast<uint64_t>(kBinomial[k][j] * static_cast<int64_t>(s[at - j]));
            v = (j & 1) ? v + term : v - term;
        }
        const int64_t value = static_cast<int64_t>(v);
        if (value < std::numeric_limits<int32_t>::min() || value > std::numeric_limits<int32_t>::max())
            return false;
        s[at] = static_cast<int32_t>(value);
        return true;
    };
    uint64_t z;
    if (from == 0) {
        if (!GetCode(in, 0, z) || !place(0, Unzigzag(z), 0))
            return false;
        from = 1;
    }
    uint64_t head = 0;  // none yet: a first block that says "as before" is refused
    for (size_t begin = from; begin < to; begin += kBlock) {
        const size_t n = std::min(kBlock, to - begin);
        uint64_t same;
        if (!in.Get(1, same) || (!same && !in.Get(8, head)))
            return false;
        const unsigned order = static_cast<unsigned>(head & 7u), p = static_cast<unsigned>(head >> 3);
        if (order < 1 || order > kMaxOrder)
            return false;
        for (size_t i = 0; i < n; ++i) {
            const size_t at = begin + i;
            if (!GetCode(in, p, z) || !place(at, Unzigzag(z), static_cast<unsigned>(std::min<size_t>(order, at))))
                return false;
        }
    }
    return true;
}

}  // namespace samplecoding
