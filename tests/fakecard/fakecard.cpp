#include "fakecard.h"

#include <chrono>
#include <mutex>
#include <thread>
#include <tuple>

namespace fakecard {

std::atomic<bool> threadStalled{false}, threadFailing{false}, threadAborts{false};
static std::mutex cardMutex;   // constant-initialised, trivially destroyed: usable at exit

Card& card()
{
    static Card* const instance = new Card;
    return *instance;
}

void reset()
{
    card() = Card();
    threadStalled = threadFailing = threadAborts = false;
}

void locked(const std::function<void()>& change)
{
    std::lock_guard<std::mutex> lock(cardMutex);
    change();
}

namespace {

void count(Call call, unsigned index = 0)
{
    std::lock_guard<std::mutex> lock(cardMutex);
    ++card().calls[call];
    const std::string& failure = card().failures[call];
    if (!failure.empty() &&
        (call != Call::DeviceInfo || card().failingDeviceIndex < 0 || unsigned(card().failingDeviceIndex) == index))
        throw RtAudioError(failure, RtAudioError::DRIVER_ERROR);
}

class FakeApi : public RtApi {
public:
    ~FakeApi() override { halt(); }
    // The layer asked for, as RtAudio compiled with it would say; else a dummy.
    RtAudio::Api getCurrentApi() override { return card().requestedApi ? card().requestedApi : RtAudio::RTAUDIO_DUMMY; }

    unsigned int getDeviceCount() override
    {
        count(Call::DeviceCount);
        return unsigned(card().devices.size());
    }

    RtAudio::DeviceInfo getDeviceInfo(unsigned int index) override
    {
        count(Call::DeviceInfo, index);
        if (index >= card().devices.size())
            throw RtAudioError("fake: device ID is invalid", RtAudioError::INVALID_USE);
        const Device& d = card().devices[index];
        RtAudio::DeviceInfo info;
        std::tie(info.probed, info.name, info.outputChannels, info.inputChannels, info.duplexChannels, info.sampleRates) =
            std::tie(d.probed, d.name, d.outputChannels, d.inputChannels, d.duplexChannels, d.sampleRates);
        info.isDefaultOutput = index == card().defaultOutput;
        info.isDefaultInput = index == card().defaultInput;
        return info;
    }

    void startStream() override
    {
        count(Call::StartStream);
        stream_.state = STREAM_RUNNING;
        const unsigned pauseUs = card().callbackThreadPauseUs;
        if (!pauseUs)
            return;
        running_ = true;
        thread_ = std::thread([this, pauseUs] {
            const Opened o = opened_;
            std::vector<short> out(o.bufferFrames * o.output.nChannels), in(o.bufferFrames * o.input.nChannels);
            while (running_) {
                if (threadAborts.exchange(false))
                    return o.errorCallback(RtAudioError::SYSTEM_ERROR, "fake: the device vanished");
                if (!threadStalled) {
                    o.callback(out.data(), o.hasInput ? in.data() : nullptr, o.bufferFrames, 0.0, 0, o.userData);
                    ++delivered_;
                    if (threadFailing)
                        o.errorCallback(RtAudioError::WARNING, "fake: connection terminated");
                }
                std::this_thread::sleep_for(std::chrono::microseconds(pauseUs));
            }
        });
    }

    // Drains as RtAudio's JACK backend does: waits for one more callback (bounded, so that a failing test ends).
    void stopStream() override
    {
        for (unsigned long seen = delivered_, i = 0; thread_.joinable() && delivered_ == seen && i < 5000; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        end(Call::StopStream, STREAM_STOPPED);
    }
    void abortStream() override { end(Call::AbortStream, STREAM_STOPPED); }
    void closeStream() override { end(Call::CloseStream, STREAM_CLOSED), card().streamOpen = false; }

    void open(const Opened& opened)
    {
        card().opened = opened_ = opened;
        count(Call::OpenStream);
        stream_.state = STREAM_STOPPED;
        card().streamOpen = true;
    }

private:
    void end(Call call, StreamState state)
    {
        count(call);
        halt();
        stream_.state = state;
    }
    // Returns once the stream's thread has finished its last callback.
    void halt()
    {
        running_ = false;
        if (thread_.joinable())
            thread_.join();
    }

    Opened opened_;
    std::atomic<bool> running_{false};
    std::atomic<unsigned long> delivered_{0};
    std::thread thread_;
};

} // namespace
} // namespace fakecard

// The parts of RtAudio's interface that are not inline in its header.
RtAudio::RtAudio(RtAudio::Api api) : rtapi_(new fakecard::FakeApi()) { fakecard::card().requestedApi = api; }
RtAudio::~RtAudio() { delete rtapi_; }

void RtAudio::openStream(RtAudio::StreamParameters* output, RtAudio::StreamParameters* input, RtAudioFormat format,
                         unsigned int rate, unsigned int* frames, RtAudioCallback callback, void* userData,
                         RtAudio::StreamOptions* options, RtAudioErrorCallback errorCallback)
{
    static_cast<fakecard::FakeApi*>(rtapi_)->open({*output, input ? *input : RtAudio::StreamParameters(), input != nullptr,
                                                   format, rate, *frames, callback, userData,
                                                   options ? *options : RtAudio::StreamOptions(), errorCallback});
}

RtApi::RtApi() : showWarnings_(true), firstErrorOccurred_(false) { stream_.state = STREAM_CLOSED; }
RtApi::~RtApi() = default;
unsigned int RtApi::getDefaultInputDevice() { return 0; }
unsigned int RtApi::getDefaultOutputDevice() { return 0; }
void RtApi::closeStream() {}
double RtApi::getStreamTime() { return 0.0; }
void RtApi::setStreamTime(double) {}
bool RtApi::probeDeviceOpen(unsigned, StreamMode, unsigned, unsigned, unsigned, RtAudioFormat, unsigned*,
                            RtAudio::StreamOptions*) { return FAILURE; }
std::string RtAudio::getApiName(RtAudio::Api api) { return api == RtAudio::RTAUDIO_DUMMY ? "dummy" : "fake"; }
std::string RtAudio::getApiDisplayName(RtAudio::Api api) { return api == RtAudio::RTAUDIO_DUMMY ? "Dummy" : "Fake"; }
