// Moments and what lies between them.
#ifndef REFERENCE_CENTER_MOMENTS_HPP
#define REFERENCE_CENTER_MOMENTS_HPP

#include <chrono>

namespace Zolt::Reference_Center {

inline double seconds_since(std::chrono::steady_clock::time_point moment) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - moment).count();
}

} // namespace Zolt::Reference_Center

#endif
