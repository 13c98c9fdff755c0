#pragma once

namespace tamrel {

// Sample helpers shared by audio nodes.
class TAudio2Node {
public:
    // Saturates a widened sample (e.g. the sum of two channels) into the
    // signed 16-bit range; values inside it pass unchanged.
    static short normalize(int sample);
};

} // namespace tamrel
