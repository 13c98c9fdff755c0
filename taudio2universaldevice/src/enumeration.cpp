// Listing the sound devices a client may pick from.
#include "taudio2universaldevice_p.h"

#include <boost/thread/lock_guard.hpp>

namespace tamrel {

std::vector<boost::shared_ptr<TAudio2DeviceInfo>> TAudio2UniversalDevice::devices(TAudio2DeviceInfo::DeviceType type)
{
    std::vector<boost::shared_ptr<TAudio2DeviceInfo>> result;
    const auto append = [&result](unsigned index, const RtAudio::DeviceInfo& info, TAudio2DeviceInfo::DeviceType kind) {
        boost::shared_ptr<TAudio2DeviceInfo> record(new TAudio2DeviceInfo());
        record->m_deviceId = static_cast<int>(index);
        record->m_name = info.name;
        record->m_isDefault = kind == TAudio2DeviceInfo::CAPTURE_DEVICE ? info.isDefaultInput : info.isDefaultOutput;
        record->m_type = kind;
        record->m_kind = 1;
        result.push_back(record);
    };
    // A failing device ends the listing; what was gathered up to it is still useful.
    try {
        boost::lock_guard<boost::mutex> soundLayer(SoundLayerMutex);
        RtAudio& rtAudio = d->m_rtAudio;
        const unsigned count = rtAudio.getDeviceCount();
        for (unsigned i = 0; i < count; ++i) {
            const RtAudio::DeviceInfo info = rtAudio.getDeviceInfo(i);
            if (!info.probed)
                continue;
            if ((type & TAudio2DeviceInfo::CAPTURE_DEVICE) && (info.inputChannels > 0 || info.duplexChannels > 0))
                append(i, info, TAudio2DeviceInfo::CAPTURE_DEVICE);
            if ((type & TAudio2DeviceInfo::PLAYBACK_DEVICE) && (info.outputChannels > 0 || info.duplexChannels > 0))
                append(i, info, TAudio2DeviceInfo::PLAYBACK_DEVICE);
        }
    } catch (...) {
    }
    return result;
}

} // namespace tamrel
