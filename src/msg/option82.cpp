// Option 82, relay agent information (RFC 3046), with its circuit-id, remote-id and vendor-specific (RFC
// 4243) sub-options: built and inserted on client frames, kept, dropped or appended to where a client sends
// its own, compared and stripped on the way back. Every refusal leaves the frame as it was.
#include "dhcpsnoop_msg.h"

#include <cstring>

#include "debug.h"
#include "dhcpsnoop_format.h"
#include "frame_edit.h"
#include "protocol.h"
#include "wire.h"

static constexpr uint32_t GENERATED_LEN = 6;

static constexpr uint8_t VENDOR_HOST_NAME = 1; // code of the vendor data in sub-option 9
static constexpr uint32_t HOST_NAME_MAX_LEN = 128;
static constexpr uint32_t VENDOR_BLOCK_LEN = 7; // enterprise number, length, code, length

static constexpr uint32_t OPTION82_ROOM = 768;
static constexpr uint32_t OPTION_LEN_MAX = 255;

static uint32_t build_template(const DhcpsnoopPktInfo *info, uint8_t code, const DhcpsnoopOptionText &option,
                               uint8_t *buffer, uint32_t room)
{
    const uint32_t length = dhcpsnoop_option_print(info, option, buffer + OPT_DATA,
                                                   room < OPT_HEADER_LEN ? 0 : room - OPT_HEADER_LEN);
    if (length == 0)
        return 0;
    buffer[0] = code;
    buffer[OPT_LEN] = static_cast<uint8_t>(length);
    return OPT_HEADER_LEN + length;
}

// `value` is generated when `type` says so, configured text otherwise.
static uint32_t build_value(uint8_t code, bool typed, uint8_t type, const uint8_t *value, uint32_t length,
                            uint8_t *buffer, uint32_t room)
{
    const uint32_t header = OPT_HEADER_LEN + (typed ? 2 : 0);
    if (header + length > room)
        return 0;
    buffer[0] = code;
    buffer[OPT_LEN] = static_cast<uint8_t>(header - OPT_HEADER_LEN + length);
    if (typed) {
        buffer[OPT_DATA] = type;
        buffer[OPT_DATA + 1] = static_cast<uint8_t>(length);
    }
    std::memcpy(buffer + header, value, length);
    return header + length;
}

// `generate` fills GENERATED_LEN bytes; it is called only when they are needed.
template <class Generate>
static uint32_t build_identifier(const DhcpsnoopPktInfo *info, uint8_t code,
                                 const DhcpsnoopOptionText &option, uint8_t *buffer, uint32_t room,
                                 Generate generate)
{
    if (info == nullptr || info->ifp == nullptr || buffer == nullptr)
        return 0;
    const uint32_t mode = option_text_mode(info->ifp, option);
    if (mode == DHCPSNOOP_FORMAT_TEMPLATE)
        return build_template(info, code, option, buffer, room);
    if (mode != DHCPSNOOP_FORMAT_TYPED && mode != DHCPSNOOP_FORMAT_RAW)
        return 0;

    // Kept: whichever record the mode came from, the text is the interface's own; a global text serves
    // templates only.
    const bool typed = mode == DHCPSNOOP_FORMAT_TYPED;
    const uint32_t length = option_text_length(info->ifp, option);
    if (length != 0)
        return build_value(code, typed, DHCPSNOOP_TYPE_TEXT, info->ifp->*option.text, length, buffer, room);
    uint8_t generated[GENERATED_LEN];
    generate(generated);
    return build_value(code, typed, DHCPSNOOP_TYPE_GENERATED, generated, sizeof generated, buffer, room);
}

void dhcpsnoop_circuit_data(uint32_t ifIndex, uint16_t vid, uint8_t out[6])
{
    uint32_t location[QOR_LOCATION_WORDS] = {};
    qorIndexTrans(&ifIndex, QOR_TRANS_LOCATION, location);
    wire_put16(out, vid);
    out[2] = static_cast<uint8_t>(location[QOR_LOCATION_SYSTEM]);
    out[3] = static_cast<uint8_t>(location[QOR_LOCATION_SLOT]);
    out[4] = static_cast<uint8_t>(location[QOR_LOCATION_CARD]);
    out[5] = static_cast<uint8_t>(location[QOR_LOCATION_PORT]);
}

uint32_t dhcpsnoop_build_subopt_circid(const DhcpsnoopPktInfo *info, uint8_t *buffer, uint32_t room)
{
    return build_identifier(
        info, RELAY_SUBOPT_CIRCUIT_ID, OPTION_TEXT_CIRCUIT_ID, buffer, room,
        [info](uint8_t *out) { dhcpsnoop_circuit_data(info->ifIndex, info->svlan, out); });
}

uint32_t dhcpsnoop_build_subopt_remoteid(const DhcpsnoopPktInfo *info, uint8_t *buffer, uint32_t room)
{
    return build_identifier(
        info, RELAY_SUBOPT_REMOTE_ID, OPTION_TEXT_REMOTE_ID, buffer, room,
        [info](uint8_t *out) { std::memcpy(out, info->ifp->mac, sizeof info->ifp->mac); });
}

uint32_t dhcpsnoop_build_subopt9(uint8_t *buffer, const DhcpsnoopIf *ifp, uint32_t withHeader)
{
    if (buffer == nullptr || ifp == nullptr || (ifp->flags & DHCPSNOOP_IF_SUBOPT9) == 0)
        return 0;
    const void *text = ifp->subopt9;
    uint32_t length = option_text_length(ifp, OPTION_TEXT_SUBOPT9);
    if (length == 0) {
        const char *hostName = nmGetHostname();
        if (hostName == nullptr || hostName[0] == '\0')
            return 0;
        text = hostName;
        length = static_cast<uint32_t>(strnlen(hostName, HOST_NAME_MAX_LEN));
    }

    uint8_t *block = buffer;
    if (withHeader == 1) {
        buffer[0] = RELAY_SUBOPT_VENDOR;
        buffer[OPT_LEN] = static_cast<uint8_t>(VENDOR_BLOCK_LEN + length);
        block += OPT_HEADER_LEN;
    }
    wire_put32(block, gDhcpsnoop.enterpriseNum);
    block[4] = static_cast<uint8_t>(2 + length);
    block[5] = VENDOR_HOST_NAME;
    block[6] = static_cast<uint8_t>(length);
    std::memcpy(block + VENDOR_BLOCK_LEN, text, length);
    return static_cast<uint32_t>(block - buffer) + VENDOR_BLOCK_LEN + length;
}

uint32_t dhcpsnoop_construct_opt82(const DhcpsnoopPktInfo *info, uint8_t *buffer, uint32_t room)
{
    if (info == nullptr || info->ifp == nullptr || buffer == nullptr)
        return 0;
    buffer[0] = DHCP_OPT_RELAY_INFO;
    buffer[OPT_LEN] = 0;
    uint8_t *const data = buffer + OPT_DATA;
    uint32_t length = dhcpsnoop_build_subopt_circid(info, data, room);
    length += dhcpsnoop_build_subopt_remoteid(info, data + length, room > length ? room - length : 0);
    length += dhcpsnoop_build_subopt9(data + length, info->ifp, 1);

    if (length == 0 || length > OPTION_LEN_MAX) {
        DEBUG_TRACE("[DHCPSNOOP] option82 len (%d) is zero or exceeds the max.\r\n", length);
        return 0;
    }
    if (info->frameLen + OPT_HEADER_LEN + length > DHCPSNOOP_FRAME_MAX) {
        DEBUG_TRACE("[DHCPSNOOP] Packet len exceeds the max, don't insert option82.\r\n");
        return 0;
    }
    buffer[OPT_LEN] = static_cast<uint8_t>(length);
    data[length] = DHCP_OPT_END;
    return OPT_HEADER_LEN + length;
}

int32_t dhcpsnoop_insert_opt82(DhcpsnoopPktInfo *info, const uint8_t *option, uint32_t length)
{
    if (info == nullptr || option == nullptr || info->optEnd == nullptr)
        return -1;
    // Over the end option and the bytes behind it; `option` brings a new end option.
    if (!frame_can_put(info, info->optEnd, length + 1, length))
        return -1;
    std::memcpy(info->optEnd, option, length + 1);
    dhcpsnoop_update_checksum(info, length, 1);
    return 0;
}

int32_t dhcpsnoop_append_subopt9(DhcpsnoopPktInfo *info)
{
    if (info == nullptr || info->optEnd == nullptr)
        return -1;
    if (info->opt82 == nullptr || info->subopt9 == nullptr)
        return 0;
    uint8_t block[VENDOR_BLOCK_LEN + HOST_NAME_MAX_LEN + 1];
    const uint32_t length = dhcpsnoop_build_subopt9(block, info->ifp, 0);
    if (length == 0 || length + info->frameLen > DHCPSNOOP_FRAME_MAX)
        return 0;
    block[length] = DHCP_OPT_END;

    // Sub-option 9 counts as the last item before the end option: bytes behind it are overwritten.
    uint8_t *at = info->subopt9 + OPT_DATA + info->subopt9[OPT_LEN];
    if (!frame_can_put(info, at, length + 1, length))
        return 0;
    std::memcpy(at, block, length + 1);
    info->opt82[OPT_LEN] = static_cast<uint8_t>(info->opt82[OPT_LEN] + length);
    info->subopt9[OPT_LEN] = static_cast<uint8_t>(info->subopt9[OPT_LEN] + length);
    dhcpsnoop_update_checksum(info, length, 1);
    return 0;
}

static int32_t existing_option82(DhcpsnoopPktInfo *info, uint32_t mode)
{
    DEBUG_TRACE("[DHCPSNOOP] option82 is already exist!\r\n");
    if (mode != DHCPSNOOP_FORMAT_TYPED && mode != DHCPSNOOP_FORMAT_RAW && mode != DHCPSNOOP_FORMAT_TEMPLATE)
        return 0;
    switch (dhcpsnoop_flag_get(info->ifp->flags, DHCPSNOOP_IF_POLICY)) {
    case DHCPSNOOP_POLICY_DROP:
        return DEBUG_REJECT("[DHCPSNOOP] Drop the pkt with option82!\r\n");
    case DHCPSNOOP_POLICY_APPEND:
        DEBUG_TRACE("[DHCPSNOOP] Append hostname & ip addres to the pkt.\r\n");
        return dhcpsnoop_append_subopt9(info);
    case DHCPSNOOP_POLICY_KEEP:
    case DHCPSNOOP_POLICY_DEFAULT:
    default:
        DEBUG_TRACE("[DHCPSNOOP] Keep the pkt, send to server directly.\r\n");
        return 0;
    }
}

int32_t dhcpsnoop_process_option82(DhcpsnoopPktInfo *info)
{
    if (info == nullptr || info->ifp == nullptr)
        return -1;
    uint32_t mode = dhcpsnoop_flag_get(info->ifp->flags, DHCPSNOOP_IF_MODE);
    if (mode == 0)
        mode = gDhcpsnoop.circuitIdFmt.mode;
    DEBUG_TRACE("[DHCPSNOOP] Process option82 in client packet, mode is %d.\r\n", mode);
    if (info->opt82 != nullptr)
        return existing_option82(info, mode);

    DEBUG_TRACE("[DHCPSNOOP] option82 isn't exist, construct and insert it to the pkt.\r\n");
    uint8_t option[OPTION82_ROOM] = {};
    const uint32_t length = dhcpsnoop_construct_opt82(info, option, sizeof option);
    if (length != 0)
        dhcpsnoop_insert_opt82(info, option, length);
    return 0;
}

// The value stands behind the sub-option's header and, when typed, its own type and length.
static uint32_t remote_id_value_offset(uint32_t mode)
{
    return mode == DHCPSNOOP_FORMAT_TYPED ? OPT_DATA + 2 : OPT_DATA;
}

static uint32_t remote_id_length(const DhcpsnoopIf *ifp)
{
    const uint32_t length = option_text_length(ifp, OPTION_TEXT_REMOTE_ID);
    return length != 0 ? length : static_cast<uint32_t>(sizeof ifp->mac);
}

uint32_t dhcpsnoop_remote_id_span(const DhcpsnoopIf *ifp, uint32_t mode)
{
    return remote_id_value_offset(mode) + remote_id_length(ifp);
}

int32_t dhcpsnoop_remote_id_cmp(const uint8_t *subOption, const DhcpsnoopIf *ifp, uint32_t mode)
{
    if (subOption == nullptr || ifp == nullptr)
        return -1;
    const uint8_t *value = subOption + remote_id_value_offset(mode);
    if (ifp->remoteIdLen == 0)
        return std::memcmp(value, ifp->mac, sizeof ifp->mac);
    return std::memcmp(ifp->remoteId, value, remote_id_length(ifp));
}

void dhcpsnoop_strip_option(DhcpsnoopPktInfo *info)
{
    if (info == nullptr || info->opt82 == nullptr)
        return;
    const auto removed = static_cast<uint8_t>(info->opt82[OPT_LEN] + OPT_HEADER_LEN);
    frame_close_gap(info, info->opt82, removed);
    info->opt82 = nullptr;
    if (info->optEnd != nullptr)
        info->optEnd -= removed;
    dhcpsnoop_update_checksum(info, removed, 0);
}
