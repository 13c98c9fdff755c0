#include <taudio2base/taudio2device.h>
#include <taudio2base/taudio2deviceinfo.h>
#include <taudio2base/taudio2node.h>

#include <algorithm>

namespace tamrel {

// Measured echo delay of a two-channel output through the desktop sound
// server at 20 ms buffers: see the README's section on echo delay.
const int TAudio2DeviceInfo::UNIVERSAL_DEVICE_DELAY = 140;

// Out of line so that the type information lives in this library.
TAudio2Device::~TAudio2Device() = default;

short TAudio2Node::normalize(int sample)
{
    return static_cast<short>(std::clamp(sample, -32768, 32767));
}

} // namespace tamrel
