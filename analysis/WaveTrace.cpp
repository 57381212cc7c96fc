#include "analysis/WaveTrace.h"

#include "analysis/Dissect.h"
#include "analysis/EventFields.h"

#include <algorithm>
#include <cmath>

namespace analysis {

bool IsAskEvent(const MsgInfo& event)
{
    if (event.direction != 0)
        return event.direction == kDirRx;
    if (!event.capture)
        return InferDirection(event) == kDirRx;
    return event.capture->highPeriod == 0 && event.capture->lowPeriod == 0;
}

void TraceOfRecord(const TriggerData& record, bool ask, WaveTrace& out)
{
    out.ask = ask;
    out.unit = ask ? "ADC counts" : "kHz";
    out.t.clear();
    out.v.clear();
    const std::vector<int32_t>& s = record.samples;
    out.t.reserve(s.size());
    out.v.reserve(s.size());
    if (ask) {
        // One envelope sample every 25 us.
        for (size_t i = 0; i < s.size(); ++i) {
            out.t.push_back(static_cast<double>(i) * 0.025);
            out.v.push_back(static_cast<double>(s[i]));
        }
        out.duration = static_cast<double>(s.size()) * 0.025;
    } else {
        // A word is 16 carrier cycles in ticks of 60 MHz: it lasts word / 60
        // us, and the carrier is 960 000 / word kHz over it (drawn at the
        // word's middle).
        double ticks = 0.0;
        for (int32_t w : s) {
            if (w <= 0)
                continue;
            out.t.push_back((ticks + w / 2.0) / 60000.0);
            out.v.push_back(960000.0 / w);
            ticks += w;
        }
        out.duration = ticks / 60000.0;
    }
}

std::vector<uint8_t> SliceLine(const std::vector<double>& values)
{
    std::vector<uint8_t> line(values.size(), 1);
    if (values.empty())
        return line;
    const auto range = std::minmax_element(values.begin(), values.end());
    const double lo = *range.first, hi = *range.second;
    if (!(hi - lo > 0.0))
        return line;
    const double mid = (lo + hi) / 2.0, band = (hi - lo) / 8.0;
    const bool restHigh = values.front() > mid;
    bool high = restHigh;
    for (size_t i = 0; i < values.size(); ++i) {
        if (high && values[i] < mid - band)
            high = false;
        else if (!high && values[i] > mid + band)
            high = true;
        line[i] = high == restHigh ? 1 : 0;
    }
    return line;
}

void ReadBiPhase(const std::vector<double>& t, const std::vector<uint8_t>& line, WaveTrace& out)
{
    out.bits.clear();
    out.bytes.clear();
    std::vector<double> edges;
    for (size_t i = 1; i < line.size() && i < t.size(); ++i)
        if (line[i] != line[i - 1])
            edges.push_back((t[i - 1] + t[i]) / 2.0);
    if (edges.size() < 8)
        return;
    std::vector<double> runs;
    for (size_t k = 1; k < edges.size(); ++k)
        runs.push_back(edges[k] - edges[k - 1]);
    std::vector<double> sorted = runs;
    std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 4), sorted.end());
    const double half = sorted[sorted.size() / 4];  // most of a packet's runs are half cells
    if (!(half > 0.0))
        return;

    // A record that begins inside the first cell of a frame (a transmitter's
    // record can begin right where its packet does) has that cell's opening
    // edge cut off: a first run of a whole cell from the record's start is
    // taken as that cell.
    if (!t.empty() && edges.front() - t.front() >= 1.5 * half && edges.front() - t.front() < 2.5 * half) {
        edges.insert(edges.begin(), edges.front() - 2.0 * half);
        runs.insert(runs.begin(), 2.0 * half);
    }

    // Cells between edges: a half run pairs with the next into a one, a
    // whole run is a zero; a run longer than a bit and a half is the line at
    // rest, which completes a pending half with the half it would have had.
    // Halves pair up from the first whole cell backwards: a record that
    // begins (or a line that wakes from rest) in the middle of a one leaves an
    // odd count of halves before it, and the first of them is that cut one.
    std::vector<bool> skip(runs.size(), false);
    for (size_t k = 0; k < runs.size();) {
        if (k > 0 && runs[k - 1] < 3.0 * half) {
            ++k;
            continue;
        }
        size_t n = 0;
        while (k + n < runs.size() && runs[k + n] < 1.5 * half)
            ++n;
        if (n % 2 == 1 && k + n < runs.size() && runs[k + n] < 3.0 * half)
            skip[k] = true;
        k += std::max<size_t>(n, 1);
    }
    std::vector<WaveCell> bits;
    double pending = -1.0;  // start of a one's first half
    for (size_t k = 0; k < runs.size(); ++k) {
        if (skip[k])
            continue;
        const double d = runs[k];
        const double at = edges[k];
        if (d < 1.5 * half) {
            if (pending < 0.0)
                pending = at;
            else {
                bits.push_back({pending, at + d, 1});
                pending = -1.0;
            }
        } else if (d < 3.0 * half) {
            if (pending >= 0.0) {
                // A lone half before a whole cell: the one ends a half later.
                bits.push_back({pending, at + std::min(d, half), 1});
                pending = -1.0;
            } else
                bits.push_back({at, at + d, 0});
        } else {
            if (pending >= 0.0)
                bits.push_back({pending, at + half, 1});
            pending = -1.0;
            bits.push_back({at, at, -1});  // rest: breaks a frame
        }
    }
    if (pending >= 0.0)
        bits.push_back({pending, edges.back() + half, 1});
    else if (t.back() - edges.back() < 1.5 * half)
        // The record ends inside the last cell, the stop bit (a record may
        // end at its last edge): the cell as it would have been.
        bits.push_back({edges.back(), edges.back() + 2.0 * half, 1});

    // The frame starts after the preamble's ones with its start bit: at
    // least four ones on the receiver's side; the transmitter's packets lead
    // with as few as one.
    const size_t leadOnes = out.ask ? 4 : 0;
    size_t start = bits.size();
    for (size_t k = leadOnes; k < bits.size() && start == bits.size(); ++k) {
        bool lead = bits[k].value == 0;
        for (size_t j = 1; j <= leadOnes && lead; ++j)
            lead = bits[k - j].value == 1;
        if (lead)
            start = k;
    }
    // The cells shown are those of the preamble's last ones and the frame.
    for (size_t k = start >= 4 ? start - 4 : 0; k < bits.size(); ++k)
        if (bits[k].value >= 0)
            out.bits.push_back(bits[k]);
    for (size_t k = start; k + 10 < bits.size(); k += 11) {
        bool whole = true;
        for (size_t j = k; j <= k + 10; ++j)
            whole = whole && bits[j].value >= 0;
        if (!whole || bits[k].value != 0)
            break;
        WaveByte b;
        b.index = static_cast<int>(out.bytes.size());
        b.t0 = bits[k].t0;
        b.t1 = bits[k + 10].t1;
        b.dataT0 = bits[k + 1].t0;
        b.dataT1 = bits[k + 8].t1;
        b.parityT0 = bits[k + 9].t0;
        b.parityT1 = bits[k + 9].t1;
        int ones = 0;
        for (int i = 0; i < 8; ++i) {
            b.value |= bits[k + 1 + static_cast<size_t>(i)].value << i;
            ones += bits[k + 1 + static_cast<size_t>(i)].value;
        }
        // The receiver's parity is odd; the transmitter's parity bit is the
        // XOR of the data bits (even).
        b.parityOk = (ones + bits[k + 9].value) % 2 == (out.ask ? 1 : 0);
        b.stopOk = bits[k + 10].value == 1;
        out.bytes.push_back(b);
    }
}

WaveTrace BuildWaveTrace(const MsgInfo& event)
{
    WaveTrace w;
    w.ask = IsAskEvent(event);
    w.unit = w.ask ? "ADC counts" : "kHz";
    if (!event.capture || event.capture->samples.empty())
        return w;
    TraceOfRecord(*event.capture, w.ask, w);
    // FSK words are read through the mean of four, as the level slicer
    // reads them, so that a single odd word does not make an edge.
    std::vector<double> level = w.v;
    if (!w.ask && level.size() >= 4) {
        for (size_t i = 3; i < w.v.size(); ++i)
            level[i] = (w.v[i] + w.v[i - 1] + w.v[i - 2] + w.v[i - 3]) / 4.0;
    }
    ReadBiPhase(w.t, SliceLine(level), w);

    const std::vector<uint8_t> frame = ParseSpacedHex(event.packet.PacketData);
    const int direction = w.ask ? kDirRx : kDirTx;
    if (!w.bytes.empty()) {
        w.packetT0 = w.bytes.front().t0;
        w.packetT1 = w.bytes.back().t1;
    }
    if (!frame.empty()) {
        uint8_t x = 0;
        for (size_t i = 0; i + 1 < frame.size(); ++i)
            x ^= frame[i];
        w.checksumOk = frame.size() >= 2 && x == frame.back();
        std::string name = PacketName(direction, frame.front());
        if (name.empty())
            name = event.common.typeString.empty() ? "Unknown" : event.common.typeString;
        w.packetText = name + (w.checksumOk ? ", checksum good" : ", checksum bad");
    }
    const PacketRecord& p = event.packet;
    if (p.reading == "recovered")
        w.readers = "second reader: " + p.PacketData + "(the list decoder read nothing)";
    else if (p.reading == "corrected")
        w.readers = "second reader: " + p.PacketData + "; list decoder: " + p.otherReading;
    else if (p.reading == "disputed")
        w.readers = "disputed: " + p.PacketData + "/ " + p.otherReading;
    else if (p.reading == "refused")
        w.readers = "refused (breaks the length rule): " + p.PacketData;
    else if (!p.reading.empty())
        w.readers = p.reading;
    return w;
}

}  // namespace analysis
