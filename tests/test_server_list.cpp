// The list of servers that were heard.
#include "daemon_test.h"

namespace
{

class ServerList : public Daemon
{
  protected:
    void SetUp() override { world.reset(0, 0, 2); }

    static Lines servers()
    {
        Lines lines;
        for (const DhcpsnoopServer *server : list_each<DhcpsnoopServer>(&gDhcpsnoop.serverList))
            lines.push_back(world_format("%u vlan %u if %u", server->serverIp, server->vid, server->ifIndex));
        return lines;
    }
};

TEST_F(ServerList, NewestFirst)
{
    dhcpsnoop_server_add(1, 10, 3);
    dhcpsnoop_server_add(2, 20, 4);
    EXPECT_EQ(servers(), (Lines{"2 vlan 20 if 4", "1 vlan 10 if 3"}));
}

TEST_F(ServerList, FullListReplacesItsNewest)
{
    // Kept: not its oldest.
    dhcpsnoop_server_add(1, 10, 3);
    dhcpsnoop_server_add(2, 10, 3);
    dhcpsnoop_server_add(3, 10, 3);
    EXPECT_EQ(servers(), (Lines{"3 vlan 10 if 3", "1 vlan 10 if 3"}));
}

TEST_F(ServerList, LookupWantsAllThree)
{
    dhcpsnoop_server_add(1, 10, 3);
    const DhcpsnoopServer *first = dhcpsnoop_server_lookup(1, 10, 3);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(dhcpsnoop_server_lookup(1, 20, 3), nullptr);
    EXPECT_EQ(dhcpsnoop_server_lookup(1, 10, 4), nullptr);
    EXPECT_EQ(dhcpsnoop_server_lookup(2, 10, 3), nullptr);
    EXPECT_EQ(dhcpsnoop_server_lookup(1, 3, 10), nullptr);
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
    EXPECT_EQ(servers(), Lines{});
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
    EXPECT_EQ(servers(), Lines{});
    list_insert_after(&gDhcpsnoop.serverFreeList, first);
    list_insert_after(&gDhcpsnoop.serverFreeList, second);
}

} // namespace
