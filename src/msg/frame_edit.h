// Bounds and in-place edits of the frame being processed. Nothing else moves or overwrites its bytes by a
// length that came from outside, so nothing leaves the 2048 bytes that every frame lives in.
#pragma once

#include "dhcpsnoop.h"

// True when [p, p + count) lies inside the frame's 2048-byte buffer. Null does not.
bool frame_holds(const DhcpsnoopPktInfo *info, const uint8_t *p, size_t count);

// Bytes from `p`, which is in the buffer or at its end, to the end of the frame as it is now.
uint32_t frame_left(const DhcpsnoopPktInfo *info, const uint8_t *p);

// A byte, or four in network order; bytes outside the buffer read as 0.
uint8_t frame_get8(const DhcpsnoopPktInfo *info, const uint8_t *p);
uint32_t frame_get32(const DhcpsnoopPktInfo *info, const uint8_t *p);

// Behind the last byte of the DHCP message.
uint8_t *frame_message_end(const DhcpsnoopPktInfo *info);

// True when the message can grow by `growth` and `count` bytes can be written at `at`. Nothing is written.
bool frame_can_put(const DhcpsnoopPktInfo *info, const uint8_t *at, uint32_t count, uint32_t growth);

// Moves the bytes from `at` to the end of the message up, to make room for `count` bytes. The caller has
// asked frame_can_put for the moved range, and writes the bytes and grows the message.
void frame_open_gap(DhcpsnoopPktInfo *info, uint8_t *at, uint32_t count);
// Moves the rest of the message down over `count` bytes at `at`.
void frame_close_gap(DhcpsnoopPktInfo *info, uint8_t *at, uint32_t count);
