// A frame callback for streams on a real server: plays a far-end signal and
// records, without locks or allocation on the audio thread, how often and
// with what sizes the device called it.
#pragma once

#include <taudio2base/taudio2device.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

namespace realserver {

class CallProbe {
public:
    using Clock = std::chrono::steady_clock;

    // farEnd: mono samples at the client rate, written to every playback
    // channel and followed by silence.
    explicit CallProbe(std::vector<int16_t> farEnd = {}, int playbackChannels = 1);

    // The device's frame callback; it keeps the probe alive as long as the
    // device keeps the callback.
    static tamrel::TAudio2FrameCallback callback(const std::shared_ptr<CallProbe>& probe);

    int calls() const { return m_calls.load(std::memory_order_acquire); }
    bool waitForCalls(int count, std::chrono::milliseconds timeout) const;
    // Calls that started before t.
    int callsBefore(Clock::time_point t) const;

    int captureBytesMin() const { return m_captureMin.load(); }
    int captureBytesMax() const { return m_captureMax.load(); }
    int playbackBytesMin() const { return m_playbackMin.load(); }
    int playbackBytesMax() const { return m_playbackMax.load(); }
    int callsWithoutCapture() const { return m_noCapture.load(); }

private:
    bool onFrame(const char* capture, int captureBytes, char* playback, int playbackBytes);

    static constexpr int TIMES = 8192;   // a few minutes of 20 ms periods

    std::vector<int16_t> m_farEnd;
    std::size_t m_position = 0;
    const int m_playbackChannels;
    std::unique_ptr<std::atomic<Clock::rep>[]> m_times;
    std::atomic<int> m_calls{0};
    std::atomic<int> m_captureMin{1 << 30}, m_captureMax{-1};
    std::atomic<int> m_playbackMin{1 << 30}, m_playbackMax{-1};
    std::atomic<int> m_noCapture{0};
};

} // namespace realserver
