// Not a Google benchmark: where the bits of the ASK capture records go, and
// what other predictions of the envelope would leave, as the measurement that
// the next change of the record file is planned from.
//
// An ASK record keeps the envelope of its burst: the stream's five-point
// smoothing, done again on every 5 ms pass for as long as the packet's group
// stays open, so a packet's first samples have been smoothed several times and
// the samples of the pass that closed it only once. For the ASK records of a
// synthesized session of the emulator's script (noise on, both second readers
// on) this prints, in bits a sample of that envelope:
//   - the record file as written now (version 3), the whole record and its
//     sample series alone (polynomial prediction of order 1 to 6 chosen per
//     block of 32, Rice codes), over the record's newest 200 samples (the
//     last pass, smoothed once) and the samples before them;
//   - a linear prediction of order 12 on the second differences, fitted
//     again every 8 samples from the 96 before (decoder and coder could both
//     fit it, nothing to store), Rice-coded per block of 32 as version 3 does;
//   - what a record takes besides its series (its fields and pulses, the
//     frame's header);
//   - what the Gaussian noise of one smoothing leaves on its own (the floor
//     of the samples smoothed once: no lossless coding goes under it);
// and the record file per hour of stream that the records would take with the
// second prediction in place of the first.
//
//   record_predictors [MINUTES]     (default 3)
#include "SessionRecords.h"
#include "events/RecordStore.h"
#include "events/SampleCoding.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

uint64_t Zigzag(int64_t v)
{
    return v < 0 ? static_cast<uint64_t>(-(v + 1)) * 2 + 1 : static_cast<uint64_t>(v) * 2;
}

// Rice codes per block of 32 with the best parameter, and a head as version 3
// writes it: one bit when the block takes the parameter of the one before,
// else nine.
uint64_t RiceBits(const std::vector<int64_t>& e, size_t from, size_t to)
{
    uint64_t bits = 0;
    int before = -1;
    for (size_t b = from; b < to; b += samplecoding::kBlock) {
        const size_t end = std::min(to, b + samplecoding::kBlock);
        uint64_t best = UINT64_MAX;
        int bestK = 0;
        for (int k = 0; k < 24; ++k) {
            uint64_t n = 0;
            for (size_t i = b; i < end; ++i)
                n += (Zigzag(e[i]) >> k) + 1 + static_cast<uint64_t>(k);
            if (n < best) {
                best = n;
                bestK = k;
            }
        }
        bits += best + (bestK == before ? 1 : 9);
        before = bestK;
    }
    return bits;
}

// Solves A w = b (n by n, row-major) with a little ridge; false if singular.
bool Solve(std::vector<double> a, std::vector<double> b, size_t n, std::vector<double>& w)
{
    for (size_t i = 0; i < n; ++i)
        a[i * n + i] += 1e-3 * a[i * n + i] + 1e-3;
    for (size_t c = 0; c < n; ++c) {
        size_t pivot = c;
        for (size_t r = c + 1; r < n; ++r)
            if (std::fabs(a[r * n + c]) > std::fabs(a[pivot * n + c]))
                pivot = r;
        if (a[pivot * n + c] == 0.0)
            return false;
        for (size_t k = 0; k < n; ++k)
            std::swap(a[c * n + k], a[pivot * n + k]);
        std::swap(b[c], b[pivot]);
        for (size_t r = c + 1; r < n; ++r) {
            const double f = a[r * n + c] / a[c * n + c];
            for (size_t k = c; k < n; ++k)
                a[r * n + k] -= f * a[c * n + k];
            b[r] -= f * b[c];
        }
    }
    w.assign(n, 0.0);
    for (size_t r = n; r-- > 0;) {
        double s = b[r];
        for (size_t k = r + 1; k < n; ++k)
            s -= a[r * n + k] * w[k];
        w[r] = s / a[r * n + r];
    }
    return true;
}

// Residuals of the second differences against a linear prediction of order
// `order` fitted (least squares) every `every` values on the `window` before.
std::vector<int64_t> AdaptiveResiduals(const std::vector<int32_t>& y, size_t order, size_t window, size_t every)
{
    std::vector<int64_t> x(y.begin(), y.end());
    for (int pass = 0; pass < 2; ++pass)
        for (size_t i = x.size(); i-- > 1;)
            x[i] -= x[i - 1];
    std::vector<int64_t> e(x.size());
    std::vector<double> w(order, 0.0), a(order * order), b(order);
    const size_t first = order + 2;
    for (size_t i = 0; i < x.size(); ++i) {
        if (i % every == 0 && i >= first + 8) {
            std::fill(a.begin(), a.end(), 0.0);
            std::fill(b.begin(), b.end(), 0.0);
            for (size_t t = std::max(first, i > window ? i - window : 0); t < i; ++t)
                for (size_t p = 0; p < order; ++p) {
                    const double h = static_cast<double>(x[t - 1 - p]);
                    b[p] += h * static_cast<double>(x[t]);
                    for (size_t q = 0; q < order; ++q)
                        a[p * order + q] += h * static_cast<double>(x[t - 1 - q]);
                }
            if (!Solve(a, b, order, w))
                std::fill(w.begin(), w.end(), 0.0);
        }
        if (i < first) {
            e[i] = x[i];
            continue;
        }
        double guess = 0.0;
        for (size_t p = 0; p < order; ++p)
            guess += w[p] * static_cast<double>(x[i - 1 - p]);
        e[i] = x[i] - std::llround(guess);
    }
    return e;
}

}  // namespace

int main(int argc, char** argv)
{
    const int minutes = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
    const sessionrecords::SessionRecords session = sessionrecords::Collect(minutes * 60.0);

    size_t records = 0, other = 0;
    uint64_t samples = 0, head = 0, tail = 0;
    uint64_t recordBits = 0, v3Head = 0, v3Tail = 0, lpcHead = 0, lpcTail = 0;
    std::vector<int32_t> y;
    for (const TriggerDataPtr& r : session.ask) {
        if (!sessionrecords::Envelope(*r, y)) {
            ++other;
            continue;
        }
        ++records;
        const size_t cut = y.size() - sessionrecords::kPass;
        samples += y.size();
        head += cut;
        tail += sessionrecords::kPass;
        recordBits += 8 * (RecordStore::EncodePacked(*r).size() + RecordStore::kCompressedFrameHeaderSize);
        v3Head += sessionrecords::SeriesBits(y, 0, cut);
        v3Tail += sessionrecords::SeriesBits(y, cut, y.size());
        const std::vector<int64_t> e = AdaptiveResiduals(y, 12, 96, 8);
        lpcHead += RiceBits(e, 0, cut);
        lpcTail += RiceBits(e, cut, e.size());
    }
    if (!records) {
        std::printf("no ASK record with an envelope\n");
        return 1;
    }
    const auto per = [](uint64_t bits, uint64_t n) { return n ? static_cast<double>(bits) / static_cast<double>(n) : 0.0; };
    const double floorOnce = sessionrecords::OnceSmoothedNoiseBits();
    std::printf("%d minutes of stream: %zu ASK records with their envelope (%zu others), %llu samples (%.0f a record)\n",
                minutes, records, other, static_cast<unsigned long long>(samples),
                static_cast<double>(samples) / static_cast<double>(records));
    std::printf("bits a sample             %10s %10s %10s\n", "all", "before", "last 200");
    std::printf("v3 whole record (frame)   %10.2f\n", per(recordBits, samples));
    std::printf("v3 sample series          %10.2f %10.2f %10.2f\n", per(v3Head + v3Tail, samples), per(v3Head, head),
                per(v3Tail, tail));
    std::printf("adaptive LPC 12 on d2     %10.2f %10.2f %10.2f\n", per(lpcHead + lpcTail, samples),
                per(lpcHead, head), per(lpcTail, tail));
    std::printf("v3 besides the series: %.0f bytes a record (fields and pulses in their zstd frame, the frame's "
                "header)\n",
                static_cast<double>(recordBits - v3Head - v3Tail) / 8.0 / static_cast<double>(records));
    std::printf("noise of one smoothing    %10s %10s %10.2f (the floor of samples smoothed once)\n", "", "", floorOnce);
    // The records per hour at the session's rate, with every ASK record's
    // series coded the second way and the rest as written now.
    const double hours = session.streamSeconds / 3600.0;
    const double mib = 1.0 / (8.0 * 1024.0 * 1024.0);
    uint64_t fskBits = 0;
    for (const TriggerDataPtr& r : session.fsk)
        fskBits += 8 * (RecordStore::EncodePacked(*r).size() + RecordStore::kCompressedFrameHeaderSize);
    const double scale = static_cast<double>(session.ask.size()) / static_cast<double>(records);
    const double now = (static_cast<double>(recordBits) * scale + static_cast<double>(fskBits)) * mib / hours;
    const double lpc = (static_cast<double>(recordBits - (v3Head + v3Tail) + lpcHead + lpcTail) * scale +
                        static_cast<double>(fskBits)) *
                       mib / hours;
    std::printf("record file: %.1f MiB an hour of stream as written now, %.1f MiB with the adaptive prediction\n", now,
                lpc);
    return 0;
}
