// Options 67 (boot file name, RFC 2132 9.5) and 125 (vendor-identifying vendor-specific information, RFC
// 3925) put into server replies. Option 82, where there is one, stays last, so that a later strip or a relay
// further on finds it at the end. Every refusal leaves the frame as it was.
#include "dhcpsnoop_msg.h"

#include <cstring>

#include "debug.h"
#include "frame_edit.h"
#include "protocol.h"
#include "wire.h"

static constexpr uint32_t OPTION_ROOM = 256; // header and data of an option whose length byte is at most 253
static constexpr uint32_t TAIL_MAX = 256;    // bytes from option 82 to the end of the message

static constexpr uint32_t VENDOR_HEADER_LEN = 7; // enterprise number, length, code, length
static constexpr uint8_t VENDOR_CODE = 4;

static bool tail_fits(const DhcpsnoopPktInfo *info)
{
    return info->opt82 == nullptr ||
           frame_message_end(info) - info->opt82 <= static_cast<ptrdiff_t>(TAIL_MAX);
}

// Before option 82, or over the end option with a new one behind. `option` has room for that end option.
static void option_insert(DhcpsnoopPktInfo *info, uint8_t *option, uint32_t count)
{
    if (info->opt82 != nullptr) {
        if (!frame_can_put(info, info->opt82, count, count))
            return;
        frame_open_gap(info, info->opt82, count);
        std::memcpy(info->opt82, option, count);
        info->opt82 += count;
    } else {
        if (!frame_can_put(info, info->optEnd, count + 1, count))
            return;
        option[count] = DHCP_OPT_END;
        std::memcpy(info->optEnd, option, count + 1);
    }
    info->optEnd += count;
    dhcpsnoop_update_checksum(info, count, 1);
}

void dhcpsnoop_insert_opt67(DhcpsnoopPktInfo *info, const uint8_t *name, uint32_t length)
{
    DEBUG_TRACE("[DHCPSNOOP] Insert option67, len is %d.\r\n", length);
    if (info == nullptr || info->opt67 != nullptr || info->optEnd == nullptr)
        return;
    if (length == 0 || length > 255 - OPT_HEADER_LEN) {
        DEBUG_TRACE("[DHCPSNOOP] option67 len is invalid!\r\n");
        return;
    }
    const uint32_t count = OPT_HEADER_LEN + length;
    if (count + info->frameLen > DHCPSNOOP_FRAME_MAX) {
        DEBUG_TRACE("[DHCPSNOOP] Packet len exceeds the max, don't insert option67!\r\n");
        return;
    }
    if (!tail_fits(info)) {
        DEBUG_TRACE("[DHCPSNOOP] option-82 is not the last option, don't insert option67!\r\n");
        return;
    }
    uint8_t option[OPTION_ROOM];
    option[0] = DHCP_OPT_BOOT_FILE;
    option[OPT_LEN] = static_cast<uint8_t>(length);
    std::memcpy(option + OPT_DATA, name, length);
    option_insert(info, option, count);
}

void dhcpsnoop_insert_opt125(DhcpsnoopPktInfo *info, const uint8_t *data, uint32_t length)
{
    DEBUG_TRACE("[DHCPSNOOP] Insert option125, len is %d.\r\n", length);
    if (info == nullptr || info->opt125 != nullptr || info->optEnd == nullptr)
        return;
    if (length == 0 || length > 255 - OPT_HEADER_LEN - VENDOR_HEADER_LEN) {
        DEBUG_TRACE("[DHCPSNOOP] option125 len is invalid!\r\n");
        return;
    }
    const uint32_t count = OPT_HEADER_LEN + VENDOR_HEADER_LEN + length;
    if (count + info->frameLen > DHCPSNOOP_FRAME_MAX) {
        DEBUG_TRACE("[DHCPSNOOP] Packet len exceeds the max, don't insert option125!\r\n");
        return;
    }
    if (!tail_fits(info)) {
        DEBUG_TRACE("[DHCPSNOOP] option-82 is not the last option, don't insert option125!\r\n");
        return;
    }
    uint8_t option[OPTION_ROOM];
    option[0] = DHCP_OPT_VI_VENDOR;
    option[OPT_LEN] = static_cast<uint8_t>(length + VENDOR_HEADER_LEN);
    wire_put32(option + OPT_DATA, gDhcpsnoop.enterpriseNum);
    option[6] = static_cast<uint8_t>(length + 2);
    option[7] = VENDOR_CODE;
    option[8] = static_cast<uint8_t>(length);
    std::memcpy(option + OPT_HEADER_LEN + VENDOR_HEADER_LEN, data, length);
    option_insert(info, option, count);
}
