// Option text templates. In: a template with an explicit length, and the frame it is expanded for. Out: at
// most 255 bytes, not terminated. A conversion that does not fit is left out whole and ends the text; nothing
// is an error.
#include "dhcpsnoop_format.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "option_template.h"
#include "platform.h"

static constexpr uint32_t OUTPUT_MAX = 255;
static constexpr uint32_t TEXT_ROOM = 128; // of a text the platform gives

// The value of one letter.
struct Conversion {
    uint8_t bytes[TEXT_ROOM];
    uint32_t length;
};

static void put_number(Conversion *out, uint32_t value)
{
    char digits[16];
    const int length =
        std::snprintf(digits, sizeof digits, "%ld", static_cast<long>(static_cast<int32_t>(value)));
    out->length = static_cast<uint32_t>(length);
    std::memcpy(out->bytes, digits, out->length);
}

static uint32_t number_attribute(uint32_t ifIndex)
{
    uint32_t value = 0;
    qorIfGetApi(ifIndex, QOR_IF_NUMBER, &value);
    return value;
}

// A text the platform does not give stays zeroed at its full length.
template <class Ask> static void put_text(Conversion *out, Ask ask)
{
    QorBuffer text = {out->bytes, TEXT_ROOM};
    ask(&text);
    out->length = std::min(text.length, TEXT_ROOM);
}

static void convert(uint8_t letter, const DhcpsnoopPktInfo *info, Conversion *out)
{
    uint32_t location[QOR_LOCATION_WORDS] = {};
    qorIndexTrans(&info->ifIndex, QOR_TRANS_LOCATION, location);

    std::memset(out, 0, sizeof *out);
    switch (letter) {
    case LETTER_HOST_NAME:
        put_text(out, [](QorBuffer *text) { qorScalarGetApi(0, QOR_SCALAR_HOSTNAME, text); });
        break;
    case LETTER_DESCRIPTION:
        put_text(out, [](QorBuffer *text) { qorScalarGetApi(0, QOR_SCALAR_DESCRIPTION, text); });
        break;
    case LETTER_PORT_NAME:
        put_text(out, [info](QorBuffer *text) { qorIfGetApi(info->ifIndex, QOR_IF_NAME, text); });
        break;
    case LETTER_INTERFACE_NUMBER:
        put_number(out, info->ifp != nullptr ? number_attribute(info->ifp->ifIndex) : 0);
        break;
    case LETTER_PORT_NUMBER:
        put_number(out, number_attribute(info->ifIndex));
        break;
    case LETTER_SLOT:
        put_number(out, location[QOR_LOCATION_SLOT]);
        break;
    case LETTER_CARD_PORT:
        put_number(out, location[QOR_LOCATION_PORT]);
        break;
    case LETTER_SERVICE_VLAN:
        put_number(out, info->svlan);
        break;
    case LETTER_CUSTOMER_VLAN:
        put_number(out, info->cvlan);
        break;
    case LETTER_ZERO:
        put_number(out, 0);
        break;
    case LETTER_MAC: // six raw bytes, not text
        out->length = sizeof info->ifp->mac;
        if (info->ifp != nullptr)
            std::memcpy(out->bytes, info->ifp->mac, sizeof info->ifp->mac);
        break;
    default:
        out->bytes[0] = '0';
        out->length = 1;
        break;
    }
}

// Bytes from `from` up to the next '%'. The search for it ends at a NUL or at the template's end. Without
// another '%' the run is the rest of the template, NULs included.
static uint32_t literal_run(const uint8_t *text, uint32_t length, uint32_t from)
{
    for (uint32_t at = from; at < length && text[at] != '\0'; at++) {
        if (text[at] == '%')
            return at - from;
    }
    return length > from ? length - from : 0;
}

uint32_t dhcpsnoop_format_print(const DhcpsnoopPktInfo *info, const uint8_t *text, uint32_t length,
                                uint8_t *out, uint32_t room)
{
    uint32_t written = 0;
    for (uint32_t pos = 0; pos < length;) {
        const uint8_t byte = text[pos];
        if (byte == '\0' || written >= OUTPUT_MAX || written >= room)
            return written;
        if (byte != '%') {
            out[written++] = byte;
            pos++;
            continue;
        }

        const uint8_t next = pos + 1 < length ? text[pos + 1] : uint8_t{0};
        if (!template_is_letter(next)) {
            const uint32_t run = literal_run(text, length, pos + 1);
            // Kept: the room is compared with the length before the run, so a run may pass it (never 255
            // bytes).
            if (written + 1 + run > OUTPUT_MAX || room < written)
                return written;
            std::memcpy(out + written, text + pos, 1 + run);
            written += 1 + run;
            pos += 1 + run;
            continue;
        }

        Conversion conversion;
        convert(next, info, &conversion);
        if (written + conversion.length > OUTPUT_MAX || written + conversion.length > room)
            return written;
        std::memcpy(out + written, conversion.bytes, conversion.length);
        written += conversion.length;
        pos += 2;
    }
    return written;
}

uint32_t dhcpsnoop_option_print(const DhcpsnoopPktInfo *info, const DhcpsnoopOptionText &option, uint8_t *out,
                                uint32_t room)
{
    const DhcpsnoopIf *ifp = info->ifp;
    if (ifp->*option.format != DHCPSNOOP_FORMAT_GLOBAL)
        return dhcpsnoop_format_print(info, ifp->*option.text, option_text_length(ifp, option), out, room);
    const DhcpsnoopOptionFormat &global = gDhcpsnoop.*option.global;
    return dhcpsnoop_format_print(info, global.text, global.len, out, room);
}

int32_t dhcpsnoop_delimiter_check(int32_t character)
{
    return template_is_delimiter(static_cast<uint8_t>(character)) ? 0 : -1;
}

int32_t dhcpsnoop_format_check(const uint8_t *text, uint32_t length)
{
    return template_fault(text, length) < 0 ? 0 : -1;
}
