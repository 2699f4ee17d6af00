// The settings of an interface's option texts, and how an option's value follows from them.
#pragma once

#include <algorithm>

#include "dhcpsnoop.h"

// The members of one option's text. Sub-option 9 has neither type nor format and is always plain.
struct DhcpsnoopOptionText {
    uint8_t (DhcpsnoopIf::*text)[DHCPSNOOP_TEXT_MAX];
    uint8_t DhcpsnoopIf::*length;
    uint8_t DhcpsnoopIf::*type;
    uint8_t DhcpsnoopIf::*format;
    DhcpsnoopOptionFormat DhcpsnoopGlobal::*global; // in force when the interface's format is 0
};
constexpr DhcpsnoopOptionText OPTION_TEXT_CIRCUIT_ID = {
    &DhcpsnoopIf::circuitId, &DhcpsnoopIf::circuitIdLen, &DhcpsnoopIf::circuitIdType,
    &DhcpsnoopIf::circuitIdFmt, &DhcpsnoopGlobal::circuitIdFmt};
constexpr DhcpsnoopOptionText OPTION_TEXT_REMOTE_ID = {&DhcpsnoopIf::remoteId, &DhcpsnoopIf::remoteIdLen,
                                                       &DhcpsnoopIf::remoteIdType, &DhcpsnoopIf::remoteIdFmt,
                                                       &DhcpsnoopGlobal::remoteIdFmt};
constexpr DhcpsnoopOptionText OPTION_TEXT_SUBOPT9 = {&DhcpsnoopIf::subopt9, &DhcpsnoopIf::subopt9Len, nullptr,
                                                     nullptr, nullptr};
constexpr DhcpsnoopOptionText OPTION_TEXT_INTERFACE_ID = {
    &DhcpsnoopIf::interfaceId, &DhcpsnoopIf::interfaceIdLen, &DhcpsnoopIf::interfaceIdType,
    &DhcpsnoopIf::interfaceIdFmt, &DhcpsnoopGlobal::interfaceIdFmt};
constexpr DhcpsnoopOptionText OPTION_TEXT_REMOTE_ID6 = {
    &DhcpsnoopIf::remoteId6, &DhcpsnoopIf::remoteId6Len, &DhcpsnoopIf::remoteId6Type,
    &DhcpsnoopIf::remoteId6Fmt, &DhcpsnoopGlobal::remoteId6Fmt};

inline uint32_t option_text_length(const DhcpsnoopIf *ifp, const DhcpsnoopOptionText &option)
{
    return std::min(uint32_t{ifp->*option.length}, DHCPSNOOP_TEXT_MAX);
}

inline uint32_t option_text_mode(const DhcpsnoopIf *ifp, const DhcpsnoopOptionText &option)
{
    const uint8_t own = ifp->*option.format;
    return own != DHCPSNOOP_FORMAT_GLOBAL ? own : (gDhcpsnoop.*option.global).mode;
}
