#include "callprobe.h"

#include <algorithm>
#include <cstring>
#include <thread>

namespace realserver {

CallProbe::CallProbe(std::vector<int16_t> farEnd, int playbackChannels)
    : m_farEnd(std::move(farEnd))
    , m_playbackChannels(playbackChannels)
    , m_times(new std::atomic<Clock::rep>[TIMES])
{
}

tamrel::TAudio2FrameCallback CallProbe::callback(const std::shared_ptr<CallProbe>& probe)
{
    return [probe](const char* capture, int captureBytes, char* playback, int playbackBytes, int) {
        return probe->onFrame(capture, captureBytes, playback, playbackBytes);
    };
}

namespace {

void widen(std::atomic<int>& low, std::atomic<int>& high, int value)
{
    if (value < low.load(std::memory_order_relaxed))
        low.store(value, std::memory_order_relaxed);
    if (value > high.load(std::memory_order_relaxed))
        high.store(value, std::memory_order_relaxed);
}

} // namespace

bool CallProbe::onFrame(const char* capture, int captureBytes, char* playback, int playbackBytes)
{
    const int index = m_calls.load(std::memory_order_relaxed);
    if (index < TIMES)
        m_times[index].store(Clock::now().time_since_epoch().count(), std::memory_order_relaxed);
    widen(m_captureMin, m_captureMax, captureBytes);
    widen(m_playbackMin, m_playbackMax, playbackBytes);
    if (!capture)
        m_noCapture.fetch_add(1, std::memory_order_relaxed);

    auto* out = reinterpret_cast<int16_t*>(playback);
    const int frames = playbackBytes / 2 / m_playbackChannels;
    for (int f = 0; f < frames; ++f) {
        const int16_t sample = m_position < m_farEnd.size() ? m_farEnd[m_position++] : 0;
        for (int c = 0; c < m_playbackChannels; ++c)
            out[f * m_playbackChannels + c] = sample;
    }
    m_calls.store(index + 1, std::memory_order_release);
    return true;
}

bool CallProbe::waitForCalls(int count, std::chrono::milliseconds timeout) const
{
    const auto deadline = Clock::now() + timeout;
    while (calls() < count) {
        if (Clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

int CallProbe::callsBefore(Clock::time_point t) const
{
    const int recorded = std::min(calls(), TIMES);
    const Clock::rep limit = t.time_since_epoch().count();
    int n = 0;
    while (n < recorded && m_times[n].load(std::memory_order_relaxed) < limit)
        ++n;
    return n;
}

} // namespace realserver
