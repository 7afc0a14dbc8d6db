// Fixed values of the helper socket protocol, shared by the application and the helper.
#pragma once

#include <cstddef>
#include <cstdint>

namespace HMWire {

// Where the systemd socket unit listens and the application connects.
inline constexpr const char *kSocketPath = "/var/run/com.hollowmere.mac.hmwispd.socket";
inline constexpr const char *kHelperLabel = "com.hollowmere.mac.hmwispd";
inline constexpr const char *kCommandQueueName = "com.hollowmere.daemon.command";

// The helper refuses any frame announcing more than this before allocating.
inline constexpr uint64_t kMaxFrameLength = 1024 * 1024;

} // namespace HMWire
