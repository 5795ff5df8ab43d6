#pragma once

#include <cmath>
#include <cstdint>

namespace vemira {

// Keeps the computer's microphone below 0.85 of full scale in a conversation on the computer:
// instant attack, a 0.25 s return towards unity. One per capture path; capture thread only.
class MicrophoneLimiter {
public:
    double gain = 1.0;
    double ceiling = 0.85;
    double release = 0.9998333472214507; // e^(-1/6000)

    // One float sample in, one wire sample out.
    std::int16_t process(float x)
    {
        if (!std::isfinite(x))
            return 0;
        const double magnitude = std::fabs(double(x));
        const double wanted = magnitude <= ceiling ? 1.0 : ceiling / magnitude;
        if (gain > wanted) {
            gain = wanted;
        } else {
            const double recovered = 1.0 - (1.0 - gain) * release;
            gain = wanted < recovered ? wanted : recovered;
        }
        double y = gain * double(x);
        if (y > ceiling)
            y = ceiling;
        if (y < -ceiling)
            y = -ceiling;
        const float single = float(y);
        return std::int16_t(std::lround(single * 32767.0f));
    }
};

} // namespace vemira
