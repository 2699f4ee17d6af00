// What became of a client's message: whether the daemon refused it, or its binding, for want of room, of a
// trusted port or of a relay server. The daemon says so in its trace only, so it is told from the tables.
#pragma once

namespace platform_linux
{

// Counts the refusals among the frames of this pass (taken_frame.h). Called behind each pass of the loop.
void refused_frames_count();

} // namespace platform_linux
