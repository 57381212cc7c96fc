#include "interchange/SigrokImport.h"

#include "sim/AskSynth.h"
#include "sim/FskSynth.h"

#include <algorithm>
#include <cmath>

namespace interchange {

namespace {

// Analog values that already lie in the sniffer's 12-bit range are taken as
// ADC counts (Coilscope's own export); any other scale (volts of a scope,
// say) is mapped linearly onto the counts between the two line levels.
std::vector<uint16_t> EnvelopeCounts(const std::vector<float>& values, size_t count, uint64_t rate)
{
    float lo = 0.0f, hi = 0.0f;
    bool any = false;
    for (float v : values) {
        if (!std::isfinite(v))
            continue;
        lo = any ? std::min(lo, v) : v;
        hi = any ? std::max(hi, v) : v;
        any = true;
    }
    // Counts are whole numbers of the 12-bit range.
    bool counts = any && lo >= 0.0f && hi <= 4095.0f;
    for (size_t i = 0; counts && i < values.size(); ++i)
        counts = !std::isfinite(values[i]) || values[i] == std::floor(values[i]);
    const double scale = !any || counts || hi <= lo ? 1.0 : (kLineActiveLevel - kLineIdleLevel) / double(hi - lo);
    std::vector<uint16_t> out(count);
    double last = kLineIdleLevel;
    auto valueAt = [&](size_t i) {
        const float v = i < values.size() ? values[i] : NAN;
        if (std::isfinite(v))
            last = counts ? v : kLineIdleLevel + (v - lo) * scale;
        return last;
    };
    for (size_t k = 0; k < count; ++k) {
        const double s = static_cast<double>(k) * static_cast<double>(rate) / kAskRate;
        const size_t i = static_cast<size_t>(s);
        const double frac = s - static_cast<double>(i);
        const double a = valueAt(i);
        const double b = i + 1 < values.size() ? valueAt(i + 1) : a;
        last = a;
        const double v = a + (b - a) * frac;
        out[k] = static_cast<uint16_t>(std::clamp(std::lround(v), 0L, 4095L));
    }
    return out;
}

}  // namespace

const SigrokChannel* ChooseAskChannel(const SigrokCapture& capture, const std::string& wanted, std::string& error)
{
    if (!wanted.empty()) {
        const SigrokChannel* c = capture.Find(wanted);
        if (!c)
            error = "no channel \"" + wanted + "\" in the sigrok session (it has " + capture.ChannelList() + ")";
        return c;
    }
    const SigrokChannel* ask = capture.Find(kAskChannel);
    if (ask && ask->analog)
        return ask;
    const SigrokChannel* qi = capture.Find(kQiChannel);
    if (qi && !qi->analog)
        return qi;
    const SigrokChannel* onlyLogic = nullptr;
    int logicCount = 0;
    const SigrokChannel* firstAnalog = nullptr;
    for (const SigrokChannel& c : capture.channels) {
        if (!c.analog) {
            logicCount += 1;
            onlyLogic = &c;
        } else if (!firstAnalog && c.name != kFskChannel)
            firstAnalog = &c;
    }
    if (logicCount == 1)
        return onlyLogic;
    if (firstAnalog)
        return firstAnalog;
    error = logicCount > 1 ? "the sigrok session has several logic channels (" + capture.ChannelList() +
                                 "): name the Qi data line with --ask-channel"
                           : "the sigrok session has no channel with the receiver's ASK signal (it has " +
                                 capture.ChannelList() + ")";
    return nullptr;
}

std::vector<uint16_t> AskSamplesFromChannel(const SigrokCapture& capture, const SigrokChannel& channel)
{
    const size_t n = capture.Samples(channel);
    if (n == 0 || capture.samplerate == 0)
        return {};
    const size_t count = static_cast<size_t>(static_cast<double>(n) * kAskRate / static_cast<double>(capture.samplerate));
    if (channel.analog)
        return EnvelopeCounts(capture.analog.at(channel.number), count, capture.samplerate);
    std::vector<uint16_t> out(count);
    for (size_t k = 0; k < count; ++k) {
        // The source sample nearest to the 40 kHz sample's time.
        const size_t i = std::min(
            n - 1, static_cast<size_t>(std::llround(static_cast<double>(k) * capture.samplerate / kAskRate)));
        out[k] = capture.Bit(channel, i) ? kLineIdleLevel : kLineActiveLevel;
    }
    return out;
}

std::vector<WordRun> WordsFromFrequency(const SigrokCapture& capture, const SigrokChannel& channel)
{
    std::vector<WordRun> runs;
    const auto it = capture.analog.find(channel.number);
    if (!channel.analog || it == capture.analog.end() || capture.samplerate == 0)
        return runs;
    const std::vector<float>& khz = it->second;
    const double ticksPerSample = 60e6 / static_cast<double>(capture.samplerate);
    const double endTicks = static_cast<double>(khz.size()) * ticksPerSample;
    double t = 0.0;
    WordRun run;
    while (t < endTicks) {
        const size_t i = std::min(khz.size() - 1, static_cast<size_t>(t / ticksPerSample));
        const double f = khz[i];
        // A carrier of 14.65 kHz to 2 MHz gives a word of 480 to 65535 ticks;
        // anything else is no carrier (and a hostile value cannot make
        // millions of words out of one sample).
        const double word = std::isfinite(f) && f > 0.0 ? std::round(960000.0 / f) : 0.0;
        if (word >= 480.0 && word <= 65535.0) {
            if (run.words.empty())
                run.startTicks = static_cast<uint64_t>(t);
            run.words.push_back(static_cast<uint16_t>(word));
            t += word;
        } else {
            if (!run.words.empty())
                runs.push_back(std::move(run));
            run = WordRun();
            t = (static_cast<double>(i) + 1.0) * ticksPerSample;
        }
    }
    if (!run.words.empty())
        runs.push_back(std::move(run));
    return runs;
}

bool StreamsFromSigrok(const SigrokCapture& capture, const std::string& askChannel, ImportedStreams& out,
                       std::string& error)
{
    out = ImportedStreams();
    const SigrokChannel* ask = ChooseAskChannel(capture, askChannel, error);
    if (!ask)
        return false;
    if (capture.samplerate < kMinImportRate) {
        error = "the sigrok session's sample rate, " + SamplerateText(capture.samplerate) +
                ", is too low to carry 2 kHz bi-phase (at least " + SamplerateText(kMinImportRate) + " is needed)";
        return false;
    }
    out.askChannel = ask->name;
    out.askFromLogic = !ask->analog;
    const std::vector<uint16_t> samples = AskSamplesFromChannel(capture, *ask);
    out.askSamples = samples.size();
    out.ask = qisim::AskStreamFrames(samples);

    const SigrokChannel* fsk = capture.Find(kFskChannel);
    if (fsk && fsk->analog && fsk != ask) {
        out.fskChannel = fsk->name;
        for (const WordRun& run : WordsFromFrequency(capture, *fsk)) {
            const std::vector<uint8_t> frames =
                qisim::FskStreamFrames(run.words, static_cast<uint32_t>(run.startTicks / 60000));
            out.fsk.insert(out.fsk.end(), frames.begin(), frames.end());
            out.fskWords += run.words.size();
        }
    }
    return true;
}

}  // namespace interchange
