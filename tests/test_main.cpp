// The program itself: what its arguments become. Start-up and the loop are replaced here.
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#define main daemon_main
#include "../src/main/main.cpp"
#undef main

static std::string did;

int32_t dhcpsnoop_init_ex(uint16_t ifCount, uint16_t userCount, uint16_t serverCount, uint32_t optionMode,
                          DhcpsnoopInstallHook deftinstallHook, DhcpsnoopIfHook ipsgHook, DhcpsnoopIfHook antiArpHook)
{
    did += " " + std::to_string(ifCount) + " " + std::to_string(userCount) + " " + std::to_string(serverCount) + " " + std::to_string(optionMode);
    did += deftinstallHook == deftinstall_client_entry_callback ? " deftinstall" : "";
    did += ipsgHook == ipsgIfGetApi ? " ipsg" : "";
    did += antiArpHook == arpAntiAttackIfGetApi ? " arp" : "";
    return -1;
}

void dhcpsnoop_main(void)
{
    did += signal(SIGPIPE, SIG_DFL) == SIG_IGN ? "" : " SIGPIPE";
    throw did;
}

void qorCatchSegFault(int argc, char **) { did = "crash reporter " + std::to_string(argc) + ", init"; }
int32_t ipsgIfGetApi(uint32_t, uint32_t, void *) { return -1; }
int32_t arpAntiAttackIfGetApi(uint32_t, uint32_t, void *) { return -1; }
int32_t deftinstall_client_entry_callback(const DhcpsnoopInstallRecord *, QorBuffer *, QorBuffer *) { return 0; }

static std::string run(std::vector<std::string> words)
{
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    EXPECT_THROW(daemon_main(static_cast<int>(words.size()), argv.data()), std::string);
    return did;
}

// Kept: the loop is entered whatever start-up gave.
TEST(Main, Arguments)
{
    EXPECT_EQ(run({"d"}), "crash reporter 1, init 0 0 0 3") << "none at all count as 0";
    EXPECT_EQ(run({"d", "30", "1024", "1"}), "crash reporter 4, init 30 1024 0 3 ipsg") << "sizes; a third installs only the IP source guard hook";
    EXPECT_EQ(run({"d", "0", "0", "0", "7"}), "crash reporter 5, init 0 0 0 3 arp") << "a fourth the ARP inspection hook";
    EXPECT_EQ(run({"d", "0", "0", "0", "0", "-1"}), "crash reporter 6, init 0 0 0 3 deftinstall") << "a fifth the auto-provisioning hook";
    EXPECT_EQ(run({"d", "abc", "x", "abc", "", "yes"}), "crash reporter 6, init 0 0 0 3") << "words count as 0";
    EXPECT_EQ(run({"d", "12abc", " 13", "1x"}), "crash reporter 4, init 12 13 0 3 ipsg") << "digits up to the first other character";
    EXPECT_EQ(run({"d", "65536", "65537"}), "crash reporter 3, init 0 1 0 3") << "sizes are taken as 16 bits";
    EXPECT_EQ(run({"d", "99999999999999999999", "-99999999999999999999", "99999999999999999999"}), "crash reporter 4, init 65535 0 0 3 ipsg") << "beyond every range";
}
