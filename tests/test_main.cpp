// The program itself: what its arguments become. Start-up and the loop are replaced here.
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#define main daemon_main
#include "../src/main/main.cpp"
#undef main

namespace
{

std::vector<std::string> did;

struct LoopEntered {
};

template <class Hook>
std::string hook(Hook given, Hook expected)
{
    return given == nullptr ? "none" : given == expected ? "hook"
                                                         : "wrong";
}

} // namespace

int32_t dhcpsnoop_init_ex(uint16_t ifCount, uint16_t userCount, uint16_t serverCount, uint32_t optionMode,
                          DhcpsnoopInstallHook deftinstallHook, DhcpsnoopIfHook ipsgHook, DhcpsnoopIfHook antiArpHook)
{
    did.push_back("init " + std::to_string(ifCount) + " " + std::to_string(userCount) + " " + std::to_string(serverCount) + " " + std::to_string(optionMode) + " " + hook(ipsgHook, ipsgIfGetApi) + " " + hook(antiArpHook, arpAntiAttackIfGetApi) + " " + hook(deftinstallHook, deftinstall_client_entry_callback));
    return -1;
}

void dhcpsnoop_main(void)
{
    did.push_back("loop");
    throw LoopEntered();
}

void qorCatchSegFault(int argc, char **) { did.push_back("crash reporter " + std::to_string(argc)); }
int32_t ipsgIfGetApi(uint32_t, uint32_t, void *) { return -1; }
int32_t arpAntiAttackIfGetApi(uint32_t, uint32_t, void *) { return -1; }
int32_t deftinstall_client_entry_callback(const DhcpsnoopInstallRecord *, QorBuffer *, QorBuffer *) { return 0; }

namespace
{

TEST(Main, Arguments)
{
    // claim, arguments, init
    const std::tuple<const char *, std::vector<const char *>, const char *> rows[] = {
        {"none at all count as 0", {}, "init 0 0 0 3 none none none"},
        {"sizes", {"30", "1024"}, "init 30 1024 0 3 none none none"},
        {"a third installs only the IP source guard hook", {"0", "0", "1"}, "init 0 0 0 3 hook none none"},
        {"a fourth the ARP inspection hook", {"0", "0", "0", "7"}, "init 0 0 0 3 none hook none"},
        {"a fifth the auto-provisioning hook", {"0", "0", "0", "0", "-1"}, "init 0 0 0 3 none none hook"},
        {"words count as 0", {"abc", "x", "abc", "", "yes"}, "init 0 0 0 3 none none none"},
        {"digits up to the first other character", {"12abc", " 13", "1x"}, "init 12 13 0 3 hook none none"},
        {"sizes are taken as 16 bits", {"65536", "65537"}, "init 0 1 0 3 none none none"},
        {"a number beyond every range still is one", {"99999999999999999999", "-99999999999999999999", "99999999999999999999"}, "init 65535 0 0 3 hook none none"},
    };
    for (const auto &[claim, arguments, init] : rows) {
        SCOPED_TRACE(claim);
        std::vector<std::string> words = {"dhcpsnoop"};
        words.insert(words.end(), arguments.begin(), arguments.end());
        std::vector<char *> argv;
        for (std::string &word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        const int argc = static_cast<int>(words.size());
        did.clear();
        signal(SIGPIPE, SIG_DFL);
        EXPECT_THROW(daemon_main(argc, argv.data()), LoopEntered);
        // Kept: the loop is entered whatever start-up gave.
        EXPECT_EQ(did, (std::vector<std::string>{"crash reporter " + std::to_string(argc), init, "loop"}));
        EXPECT_EQ(signal(SIGPIPE, SIG_DFL), SIG_IGN);
    }
}

} // namespace
