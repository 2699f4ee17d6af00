// The classifier loaded into the kernel with maps of its own, to be run on frames of ours (BPF_PROG_TEST_RUN).
// Each test runs for the object of this build and for the one kept in the tree.
#pragma once

#include "netns_test.h"

#include <cerrno>
#include <cstring>
#include <ctime>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <linux/pkt_cls.h>

#include "guard_maps.h"

constexpr uint32_t PASSED = static_cast<uint32_t>(TC_ACT_UNSPEC), TAKEN = TC_ACT_REDIRECT, REFUSED = TC_ACT_SHOT;

inline uint64_t boottime()
{
    timespec now = {};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

// A port of the VLANs 1, 10, 20 and its native one; without a native VLAN it is routed.
inline guard_port port_of(uint16_t native, uint8_t trap = 0, uint8_t inherited = 0)
{
    guard_port port = {};
    port.native = native;
    port.trap = trap;
    port.inherited = inherited;
    port.members[0] = native == 0 ? 1 : 1u << 1 | 1u << 10 | 1u << 20 | 1u << native;
    return port;
}

class GuardProgram : public NetnsTest, public ::testing::WithParamInterface<const char *>
{
  protected:
    void SetUp() override
    {
        NetnsTest::SetUp();
        if (IsSkipped())
            return;
        veth("p1", "c1");
        port_ = index("p1");
        libbpf_set_print(nullptr);
        object_ = bpf_object__open_file(GetParam(), nullptr);
        ASSERT_NE(object_, nullptr) << GetParam() << ": " << strerror(errno);
        bpf_map *map;
        bpf_object__for_each_map(map, object_) bpf_map__set_pin_path(map, nullptr);
        if (const int error = -bpf_object__load(object_); error == EPERM || error == ENOSYS)
            GTEST_SKIP() << "needs bpf(2): " << strerror(error);
        else
            ASSERT_EQ(error, 0) << strerror(error);
        program_ = bpf_program__fd(bpf_object__find_program_by_name(object_, "dhcpsnoop_guard"));
    }

    void TearDown() override { bpf_object__close(object_); }

    void put(const char *map, uint32_t key, const void *value)
    {
        ASSERT_EQ(bpf_map_update_elem(bpf_object__find_map_fd_by_name(object_, map), &key, value, BPF_ANY), 0);
    }

    // The verdict on a frame that came in on a port, p1 if it is not named; `out` gets the frame as it leaves.
    uint32_t verdict(const Bytes &frame, Bytes *out = nullptr, uint32_t port = 0)
    {
        __sk_buff context = {};
        context.ifindex = port != 0 ? port : port_;
        Bytes result(4096);
        LIBBPF_OPTS(bpf_test_run_opts, opts, .data_in = frame.data(), .data_out = result.data(),
                    .data_size_in = static_cast<uint32_t>(frame.size()),
                    .data_size_out = static_cast<uint32_t>(result.size()), .ctx_in = &context,
                    .ctx_size_in = sizeof context, .repeat = 1);
        EXPECT_EQ(bpf_prog_test_run_opts(program_, &opts), 0) << strerror(errno);
        result.resize(opts.data_size_out);
        if (out != nullptr)
            *out = result;
        return opts.retval;
    }

    // How a trapped frame leaves: the Ethernet header of the loopback device with its EtherType, then the
    // port.
    Bytes carried(int family, const Bytes &frame) const
    {
        Bytes front = repeated(0, 12) + be16(family == 4 ? 0x88B5 : 0x88B6) + be16(0) + Bytes(4);
        memcpy(front.data() + 16, &port_, 4);
        return front + frame;
    }

    bpf_object *object_ = nullptr;
    int program_ = -1;
    uint32_t port_ = 0;
};
