// The list of servers that were heard.
#include "daemon_test.h"

namespace
{

class ServerList : public Daemon
{
  protected:
    void SetUp() override { world.reset(0, 0, 2); }
};

TEST_F(ServerList, LookupWantsAllThree)
{
    dhcpsnoop_server_add(1, 10, 3);
    const DhcpsnoopServer *first = dhcpsnoop_server_lookup(1, 10, 3);
    ASSERT_NE(first, nullptr);
    for (const auto &[address, vid, port] : {std::array{1u, 20u, 3u}, {1u, 10u, 4u}, {2u, 10u, 3u}, {1u, 3u, 10u}})
        EXPECT_EQ(dhcpsnoop_server_lookup(address, vid, port), nullptr);
    // The same triple may be added again; the newest is the one found.
    dhcpsnoop_server_add(1, 10, 3);
    EXPECT_NE(dhcpsnoop_server_lookup(1, 10, 3), first);
}

TEST_F(ServerList, DeletedEntryIsZeroedAndTakenNext)
{
    dhcpsnoop_server_add(1, 10, 3);
    DhcpsnoopServer *server = dhcpsnoop_server_lookup(1, 10, 3);
    dhcpsnoop_server_delete(nullptr);
    dhcpsnoop_server_delete(server);
    EXPECT_TRUE(list_empty(&gDhcpsnoop.serverList));
    EXPECT_TRUE(server->serverIp == 0 && server->vid == 0 && server->ifIndex == 0);
    EXPECT_EQ(dhcpsnoop_server_alloc(), server);
    // A node that is on no list goes back by deleting it too: nothing is lost.
    list_insert_after(&gDhcpsnoop.serverFreeList, server);
}

TEST_F(ServerList, NothingFreeAndNothingToReplace)
{
    DhcpsnoopServer *first = dhcpsnoop_server_alloc();
    DhcpsnoopServer *second = dhcpsnoop_server_alloc();
    EXPECT_EQ(dhcpsnoop_server_alloc(), nullptr);
    dhcpsnoop_server_add(1, 10, 3);
    EXPECT_TRUE(list_empty(&gDhcpsnoop.serverList));
    list_insert_after(&gDhcpsnoop.serverFreeList, first);
    list_insert_after(&gDhcpsnoop.serverFreeList, second);
}

} // namespace
