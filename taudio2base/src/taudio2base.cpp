#include <taudio2base/taudio2device.h>
#include <taudio2base/taudio2deviceinfo.h>
#include <taudio2base/taudio2node.h>

#include <algorithm>

namespace tamrel {

// Echo delay for two-channel outputs, which go through a desktop sound
// server's mixer: the canceller's working window (15 to 55 ms past this)
// then covers the 145 to 185 ms round trip measured there at 20 ms buffers.
const int TAudio2DeviceInfo::UNIVERSAL_DEVICE_DELAY = 130;

// Out of line so that the type information lives in this library.
TAudio2Device::~TAudio2Device() = default;

short TAudio2Node::normalize(int sample)
{
    return static_cast<short>(std::clamp(sample, -32768, 32767));
}

} // namespace tamrel
