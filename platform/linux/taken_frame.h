// The frames that the daemon has been handed in this pass of its loop, one of each family, for a look at what
// became of them (refused_frames.h). Written by the packet socket; `leaves` is set when the daemon asks how a
// port wants the frame tagged, which it does for each port that it sends the frame to.
#pragma once

#include <array>

#include "dhcpsnoop.h"

namespace platform_linux
{

struct TakenFrame {
    DhcpsnoopRxPkt packet; // as it came; its interface is not filled in
    bool isNew, leaves;
};

inline std::array<TakenFrame, 2> takenFrames; // IPv4, IPv6
inline TakenFrame *latestFrame = nullptr;

} // namespace platform_linux
