// One run of the daemon in the tests' fake world, driven by the bytes of an input. A session begins in one of
// 256 prepared states, byte for byte the same every time, whatever ran before; then records are read from the
// input and played until it ends.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

// One record of an input: a frame handed to dhcpsnoop_recv, a request handed to dhcpsnoop_cmd_process, a
// datagram of events handed to dhcpsnoop_notify_recv, a packet from the peer unit handed to
// dhcpsnoop_sync_pkt_recv, or something that the switch does.
enum class Record : uint8_t { frame, request, event, packet, change };

// Builds the world and all prepared states. Once, before the first session.
void session_prepare();

// The input's first byte chooses the state; then a byte each chooses the kind of the next record. Ends with
// the invariants. `standby`: on a standby unit, until the input says otherwise.
void session_run(const uint8_t *bytes, size_t size, const std::array<Record, 8> &kinds, bool standby = false);
