// What an acquisition heard, checked against what the device emulator played:
// the emulator records every packet it plays with its start in its own stream
// time, and its stream stands still while it does not stream, so an event's
// capture time counted from the acquisition's start puts it at one place of
// that stream. Every packet heard must be one the emulator played there, no
// event may lie outside the acquisition, and every transmitter packet follows,
// within a second, the receiver packet it answers.
#pragma once

#include "events/MsgInfo.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

namespace acquisitioncheck {

struct Played {
    bool fsk = false;
    std::string bytes;
    uint64_t startUs = 0;
};

// The emulator's record of the packets it played (".expected.jsonl").
inline std::vector<Played> ReadPlayed(const std::string& path)
{
    std::vector<Played> out;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        const size_t b = line.find("\"bytes\":\"");
        const size_t s = line.find("\"start_us\":");
        if (b == std::string::npos || s == std::string::npos)
            continue;
        Played p;
        p.fsk = line.find("\"direction\":\"FSK\"") != std::string::npos;
        p.bytes = line.substr(b + 9, line.find('"', b + 9) - b - 9);
        p.startUs = std::stoull(line.substr(s + 11));
        out.push_back(p);
    }
    return out;
}

struct Heard {
    int type = 0;
    int direction = 0;  // 1 transmitter, 2 receiver, 0 neither
    std::string text;
    std::string bytes;  // the packet's bytes as the emulator writes them ("01 E7 E6")
    uint64_t startUs = 0;
};

inline Heard HeardOf(const MsgInfo& e)
{
    Heard h;
    h.type = e.type;
    h.direction = e.direction;
    h.text = e.str.toStdString();
    h.bytes = e.packet.PacketData;
    h.startUs = e.timing.startTime;
    return h;
}

// Checks one acquisition that began at `startUs` of the emulator's stream and
// lasted `lengthUs`; returns how many transmitter packets were checked
// against the receiver packet before them.
//
// Every event lies within its acquisition and every transmitter packet
// follows the receiver packet before it within a second: those always hold.
// Where each packet lies is checked against the emulator's record, and at
// least `minPlaced` of them must be within 40 ms of where it was played. On
// a machine too busy to read the ports in time the emulator drops frames: the
// receiver's samples, counted, then run behind its stream (by 440 ms in a run
// with four busy programs on two cores), while the transmitter's frames keep
// their stamps; a caller that saw frames dropped asks for fewer in place.
inline int CheckAcquisition(const std::vector<Heard>& heard, const std::vector<Played>& played, uint64_t startUs,
                            uint64_t lengthUs, const std::string& name, double minPlaced = 0.9)
{
    EXPECT_FALSE(heard.empty()) << name;
    const Heard* lastRx = nullptr;
    int matched = 0, packets = 0, txChecked = 0;
    for (const Heard& h : heard) {
        EXPECT_LE(h.startUs, lengthUs + 100000) << name << ": " << h.text;
        if (h.bytes.empty() || h.type == kTypeChecksumOrProprietary || (h.direction != 1 && h.direction != 2))
            continue;
        ++packets;
        const bool fsk = h.direction == 1;
        const uint64_t at = startUs + h.startUs;
        bool found = false;
        int64_t nearest = INT64_MAX;
        for (const Played& p : played) {
            if (p.fsk != fsk || p.bytes != h.bytes)
                continue;
            const int64_t off = static_cast<int64_t>(p.startUs) - static_cast<int64_t>(at);
            if (std::llabs(off) < std::llabs(nearest))
                nearest = off;
            if (off > -40000 && off < 40000) {
                found = true;
                break;
            }
        }
        matched += found;
        if (!found)
            std::cout << name << ": " << (fsk ? "FSK " : "ASK ") << h.bytes << " heard " << h.startUs
                      << " us after the start, at " << at << " us of the stream; the nearest played " << nearest
                      << " us from there\n";
        if (!fsk) {
            lastRx = &h;
        } else if (lastRx) {
            EXPECT_GE(h.startUs, lastRx->startUs) << name << ": " << h.text << " after " << lastRx->text;
            EXPECT_LE(h.startUs, lastRx->startUs + 1000000) << name << ": " << h.text << " after " << lastRx->text;
            ++txChecked;
        }
    }
    std::printf("%s: %zu events, %d packets, %d where the emulator played them, %d answers checked\n", name.c_str(),
                heard.size(), packets, matched, txChecked);
    EXPECT_GE(matched, static_cast<int>(minPlaced * packets)) << name << ": " << matched << " of " << packets
                                                              << " packets where the emulator played them";
    return txChecked;
}

}  // namespace acquisitioncheck
