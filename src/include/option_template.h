// Option text templates as an operator writes them, shared by the daemon and the client: what a '%' and a
// letter stand for, and which texts are acceptable.
#pragma once

#include <cstdint>

// Every other letter expands to "0".
enum TemplateLetter : char {
    LETTER_HOST_NAME = 'D',
    LETTER_DESCRIPTION = 'e',
    LETTER_PORT_NAME = 'N',
    LETTER_INTERFACE_NUMBER = 'i',
    LETTER_PORT_NUMBER = 'y',
    LETTER_SLOT = 'S',
    LETTER_CARD_PORT = 'r',
    LETTER_SERVICE_VLAN = 's',
    LETTER_CUSTOMER_VLAN = 'c',
    LETTER_ZERO = 'l',
    LETTER_MAC = 'd',
};

constexpr char TEMPLATE_DELIMITERS[] =
    " ./:;[]{}<>()"; // they may follow a letter, as may the terminating NUL

constexpr bool template_is_letter(uint8_t byte)
{
    return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z');
}

constexpr bool template_is_delimiter(uint8_t byte)
{
    for (const char delimiter : TEMPLATE_DELIMITERS) {
        if (byte == static_cast<uint8_t>(delimiter))
            return true;
    }
    return false;
}

// The place of the first '%' that is not acceptable, -1 when there is none. The text ends at a NUL or after
// `length` bytes. Kept: behind a '%' two more bytes must stand within the length, so a conversion at the very
// end passes only when the length counts the terminator.
constexpr int64_t template_fault(const uint8_t *text, uint32_t length)
{
    for (uint32_t pos = 0; pos < length && text[pos] != '\0'; pos++) {
        if (text[pos] != '%')
            continue;
        if (length - pos < 3)
            return pos;
        if (!template_is_letter(text[pos + 1]))
            continue;
        if (!template_is_delimiter(text[pos + 2]))
            return pos;
        pos += 2;
    }
    return -1;
}
