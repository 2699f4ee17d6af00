// Bounds and in-place edits of the frame being processed.
#include "frame_edit.h"

#include <algorithm>
#include <cstring>

bool frame_holds(const DhcpsnoopPktInfo *info, const uint8_t *p, size_t count)
{
    if (p == nullptr || info->frame == nullptr || p < info->frame)
        return false;
    const auto offset = static_cast<size_t>(p - info->frame);
    return offset <= DHCPSNOOP_FRAME_MAX && count <= DHCPSNOOP_FRAME_MAX - offset;
}

uint32_t frame_left(const DhcpsnoopPktInfo *info, const uint8_t *p)
{
    const auto offset = static_cast<uint32_t>(p - info->frame);
    const uint32_t end = std::min(info->frameLen, DHCPSNOOP_FRAME_MAX);
    return offset < end ? end - offset : 0;
}

uint8_t frame_get8(const DhcpsnoopPktInfo *info, const uint8_t *p)
{
    return frame_holds(info, p, 1) ? *p : uint8_t{0};
}

uint32_t frame_get32(const DhcpsnoopPktInfo *info, const uint8_t *p)
{
    uint32_t value = 0;
    for (uint32_t i = 0; i < 4; i++)
        value = value << 8 | frame_get8(info, p + i);
    return value;
}

uint8_t *frame_message_end(const DhcpsnoopPktInfo *info) { return info->dhcpMsg + info->dhcpLen; }

bool frame_can_put(const DhcpsnoopPktInfo *info, const uint8_t *at, uint32_t count, uint32_t growth)
{
    // The frame's length alone does not bound the message: an IPv4 total length near 65535 wraps it.
    return frame_holds(info, at, count) && frame_holds(info, frame_message_end(info), growth);
}

void frame_open_gap(DhcpsnoopPktInfo *info, uint8_t *at, uint32_t count)
{
    std::memmove(at + count, at, static_cast<size_t>(frame_message_end(info) - at));
}

void frame_close_gap(DhcpsnoopPktInfo *info, uint8_t *at, uint32_t count)
{
    const uint8_t *behind = at + count;
    if (behind < frame_message_end(info))
        std::memmove(at, behind, static_cast<size_t>(frame_message_end(info) - behind));
}
