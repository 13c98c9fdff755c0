#pragma once

#include <string>

namespace tamrel {

// Description of one sound device, as a device provider lists it.
class TAudio2DeviceInfo {
public:
    // Direction of a record; devices() also reads it as a bit mask.
    enum DeviceType {
        PLAYBACK_DEVICE = 1,
        CAPTURE_DEVICE = 2,
    };

    // Echo delay in ms that a universal device starts with and uses on
    // two-channel outputs. Lives here so it can change without rebuilding
    // the device library.
    static const int UNIVERSAL_DEVICE_DELAY;

    TAudio2DeviceInfo() = default;
    virtual ~TAudio2DeviceInfo() {}

    int m_deviceId = -1;
    std::string m_name;
    bool m_isDefault = false;
    DeviceType m_type = static_cast<DeviceType>(0);
    int m_kind = 0;
};

} // namespace tamrel
