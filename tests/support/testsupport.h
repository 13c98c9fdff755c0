// What the device tests share: a scripted card (two-channel speakers and a one-channel microphone, the defaults), a
// private home for the recordings, the warnings a user reads, and a client the test drives buffer by buffer.
#pragma once

#include "callsession.h"
#include "fakecard.h"

#include <shared/debugstream.h>
#include <taudio2universaldevice/taudio2universaldevice.h>

#include <QTemporaryDir>
#include <boost/shared_ptr.hpp>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace testsupport {

using Signal = std::function<int16_t(size_t frame, unsigned channel)>;
// A different value for every frame and channel: a sample lost, repeated, moved or taken from the wrong channel shows.
inline int16_t ramp(size_t frame, unsigned channel) { return int16_t(int((frame * 7 + channel * 5003) % 20000) - 10000); }
inline Signal tone(double hz, double rateHz, double amplitude)
{
    return [=](size_t f, unsigned) { return int16_t(std::lround(amplitude * std::sin(2 * M_PI * hz * double(f) / rateHz))); };
}
// Amplitude of the `hz` component of one channel of interleaved samples (Goertzel).
double toneLevel(const std::vector<int16_t>& samples, unsigned channels, unsigned channel, double hz, double rateHz);
// A recording or speech file; empty when missing or not at `rateHz`.
inline tamrel::call::Clip wav(const std::string& path, int rateHz)
{
    tamrel::call::Clip clip;
    std::string error;
    tamrel::call::loadClip(path, rateHz, &clip, &error);
    return clip;
}

class DeviceTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override { fresh(), tamrel::DebugStream::setSink(tamrel::LogSink()); }
    // Closes every device and starts again on the standard card, with these channels: the next row of a table.
    void fresh(unsigned speakerChannels = 2, unsigned microphoneChannels = 1);

    static tamrel::TAudio2StreamConfiguration config(int rate = 16000, int periodMs = 20, int playbackChannels = 1,
                                                     int captureChannels = 1, bool measureAec = false)
    {
        return {rate, "", "", periodMs, playbackChannels, captureChannels, measureAec};
    }
    // A device closed at the end; without voice processing when asked.
    boost::shared_ptr<tamrel::TAudio2UniversalDevice> makeDevice(bool voiceProcessing = true);
    // Opens `device` (made when null) for a client that keeps what it hears and plays `clientPlays`.
    int open(const tamrel::TAudio2StreamConfiguration& c, std::string* error = nullptr);
    // One card buffer: the microphone goes on with `microphone`; what the card plays is kept.
    int deliver(unsigned frames, bool withInput = true, bool withOutput = true);
    unsigned cardOutputChannels() const { return fakecard::card().opened.output.nChannels; }
    unsigned cardInputChannels() const { return fakecard::card().opened.input.nChannels; }
    std::string homeFile(const char* name) const { return m_home.path().toStdString() + "/" + name; }
    int warningsStartingWith(const std::string& prefix);

    boost::shared_ptr<tamrel::TAudio2UniversalDevice> device;
    Signal microphone = ramp, clientPlays = ramp;
    std::function<bool(int call)> answer;   // what the client returns; true when empty

    // Guarded by `mutex` where the card's own thread calls back.
    std::mutex mutex;
    std::atomic<int> calls{0};
    std::vector<int16_t> heard;      // every capture sample the client got
    std::vector<int> captureBytes;   // per call
    std::vector<int16_t> played;     // what the card was given, in its opened layout
    std::vector<std::string> warnings;

private:
    int m_clientChannels = 1;
    size_t m_clientFrames = 0, m_microphoneFrames = 0;
    QTemporaryDir m_home;
    std::vector<boost::shared_ptr<tamrel::TAudio2UniversalDevice>> m_devices;
};

} // namespace testsupport
