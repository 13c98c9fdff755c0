#pragma once

#include <taudio2base/taudio2deviceinfo.h>
#include <taudio2base/taudio2streamconfiguration.h>

#include <boost/enable_shared_from_this.hpp>
#include <boost/function.hpp>
#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>

#include <string>
#include <vector>

namespace tamrel {

// Called once per period: (capture samples or null, capture bytes,
// playback buffer to fill, playback bytes, 0). Returns true when the
// playback buffer holds valid data.
using TAudio2FrameCallback = boost::function<bool(const char*, int, char*, int, int)>;

// Abstract audio device. Devices are always owned by boost::shared_ptr.
// The order of the virtual operations is part of the binary interface.
class TAudio2Device : public boost::enable_shared_from_this<TAudio2Device>, private boost::noncopyable {
public:
    virtual ~TAudio2Device();
    virtual std::vector<boost::shared_ptr<TAudio2DeviceInfo>> devices(TAudio2DeviceInfo::DeviceType type) = 0;
    // 0 when the stream runs, a negative code otherwise (reason in *error).
    virtual int openStream(const TAudio2StreamConfiguration& configuration,
                           TAudio2FrameCallback callback,
                           std::string* error) = 0;
    virtual void closeStream() = 0;
    virtual void workCycle() {}
    virtual bool hasVoicePreprocessor() const = 0;
    virtual void reset() = 0;
};

} // namespace tamrel
