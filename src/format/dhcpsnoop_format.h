// Option text templates: a '%' and a letter stand for a property of the frame, of its port or of the switch.
#pragma once

#include "option_text.h"

// Expands `length` bytes of `text` for the frame into `out`; gives the bytes written, at most 255 and, but
// for a literal run, at most `room`. `out` must hold 255 bytes. Nothing is terminated. The text ends before
// a conversion that does not fit.
uint32_t dhcpsnoop_format_print(const DhcpsnoopPktInfo *info, const uint8_t *text, uint32_t length,
                                uint8_t *out, uint32_t room);

// The same for the template that is in force for the option on info->ifp: the interface's or the global one.
uint32_t dhcpsnoop_option_print(const DhcpsnoopPktInfo *info, const DhcpsnoopOptionText &option, uint8_t *out,
                                uint32_t room);

extern "C" {
// 0 when the template is acceptable, else -1. For whoever takes a template from an operator.
int32_t dhcpsnoop_format_check(const uint8_t *text, uint32_t length);
int32_t
dhcpsnoop_delimiter_check(int32_t character); // 0 when it may follow a conversion (low 8 bits), else -1
}
