// The database rules, the best-adapter choice, the verdict and the adapter collector.
#include "oRigwarden.h"

#include "../keel/keel_test.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

std::vector<vsGpuInfo> Adapters(std::initializer_list<std::pair<uint32_t, uint32_t>> ids) {
    std::vector<vsGpuInfo> adapters;
    for (auto [vendor, device] : ids) adapters.emplace_back(klpf("gpu %x:%x", vendor, device), vendor, device);
    return adapters;
}

// Each adapter's database fields and a "|"; "-|" for one that no record matched.
std::string Fields(const std::vector<vsGpuInfo>& adapters) {
    std::string text;
    for (const vsGpuInfo& gpu : adapters)
        text += gpu.notListed ? "-|"
                              : klpf("%d %u %u %c|", gpu.recommendedVideoQuality, gpu.recommendedWidth, gpu.benchmark,
                                     gpu.mobile ? 'M' : 'D')
                                    .Const();
    return text;
}

} // namespace

TEST(Database, Records) {
    const struct {
        const char* text;
        uint32_t vendor, device;
        const char* fields;
    } kRows[] = {
        {"; a comment 10DE, 0DE1, 1, 1, 1, D\n10DE, 0DE1, 2, 1280, 350, D ; desktop\n", 0x10DE, 0xDE1, "2 1280 350 D"},
        {"1002 68C1 -1 1024 40 M\n", 0x1002, 0x68C1, "-1 1024 40 M"},
        {"0x8086,,,0001\t3\t1920\t77\tm\textra tokens\n", 0x8086, 1, "3 1920 77 M"},
        {"8086, 0002, 3, 1600, 50 ; five tokens, M\n", 0x8086, 2, "-"},
        {"8086, 0003, 1, -1, 12, M\r\n", 0x8086, 3, "1 4294967295 12 M"}, // "M\r" is mobile
        {"8086, 0004, 1, 800, 9, \r\n", 0x8086, 4, "1 800 9 D"},          // the CR alone is a sixth token
        {"10de, 1, 3, 1920, 500, D\n10DE, 0001, 1, 800, 5, M\n", 0x10DE, 1, "3 1920 500 D"}, // the first wins
        {"zz10DE, 0xGG, abc, -5x, 99999999999999999999, Mobile\n", 0, 0, "0 4294967291 4294967295 M"},
        {"0x10DE 0x0002 +3 1e3 12abc m\n", 0x10DE, 2, "3 1 12 M"},
        // Up to eight bare hex digits, and everything the C runtime reads beyond that.
        {"FFFFFFFF 7 1 2 3 D\n", 0xFFFFFFFF, 7, "1 2 3 D"},
        {"1000010DE 7 1 2 3 D\n", 0x10DE, 7, "1 2 3 D"},
        {"-1 7 1 2 3 D\n", 0xFFFFFFFF, 7, "1 2 3 D"},
    };
    for (const auto& row : kRows) {
        // Every adapter with the record's ids takes it; one whose device differs never does.
        auto adapters = Adapters({{row.vendor, row.device}, {row.vendor, row.device}, {row.vendor, row.device ^ 1}});
        oRigwarden::ApplyDatabaseText(reinterpret_cast<const uint8_t*>(row.text), uint32_t(std::strlen(row.text)),
                                      adapters);
        EXPECT_EQ(std::string(row.fields) + "|" + row.fields + "|-|", Fields(adapters)) << row.text;
    }
}

class DatabaseFolder : public keeltest::TempFolderTest {};

TEST_F(DatabaseFolder, EveryCfgFileOnceAndTheBestAdapter) {
    Write("a.cfg", "10DE, 0002, 4, 2560, 900, D\n");
    Write("b.cfg", "10DE, 0002, 1, 640, 1, D\n10DE, 0003, 2, 1280, 300, M\n");
    Write("c.cfg", ""); // walks the previous file's records again, which changes nothing
    Write("notes.txt", "10DE, 0004, 2, 1280, 300, M\n");
    Write("big.cfg", "10DE, 0001, 4, 2560, 900, D\n" + std::string(16 << 20, ';')); // skipped
    Write("long.cfg", std::string(1 << 20, 'x') + "\n" + std::string(1 << 20, ',') + "\n10DE, 5, 2, 1920, 700, D\n");
    auto adapters = Adapters({{0x10DE, 3}, {0x10DE, 2}, {0x10DE, 4}, {0x10DE, 1}, {0x10DE, 5}});
    uint32_t best = 99;
    oRigwarden::GetGpuInfo({mDir.string().c_str()}, adapters, best);
    const bool aFirst = adapters[1].benchmark == 900; // the first record wins in the folder's listing order
    EXPECT_EQ(std::string("2 1280 300 M|") + (aFirst ? "4 2560 900 D" : "1 640 1 D") + "|-|-|2 1920 700 D|",
              Fields(adapters));
    EXPECT_EQ(aFirst ? 1u : 4u, best);
    EXPECT_EQ(0, adapters[2].notListedInfo.Find("Could not find graphics adapter (0x10DE, 0x4, gpu 10de:4)"));
}

TEST(Database, BestAdapterChoice) {
    EXPECT_EQ(0u, oRigwarden::ChooseBestAdapter({}));
    auto adapters = Adapters({{1, 1}, {2, 2}, {3, 3}, {4, 4}});
    EXPECT_EQ(0u, oRigwarden::ChooseBestAdapter(adapters)); // all unlisted: the first
    const int kQualities[] = {0, 1, 2, 2}; // a tie goes to the higher quality, a full tie to the earlier
    for (size_t i = 1; i < adapters.size(); ++i) {
        adapters[i].benchmark = 10;
        adapters[i].recommendedVideoQuality = kQualities[i];
    }
    EXPECT_EQ(2u, oRigwarden::ChooseBestAdapter(adapters));
    // A database entry with benchmark 0 and quality -1 loses to an unlisted adapter.
    adapters = Adapters({{0x15AD, 0x405}, {0x10DE, 0x1}});
    adapters[0].recommendedVideoQuality = -1;
    EXPECT_EQ(1u, oRigwarden::ChooseBestAdapter(adapters));
}

TEST(Verdict, MessagesInOrderAndBoundaries) {
    const uint64_t MB = 1 << 20;
    auto adapters = Adapters({{0x10DE, 0x1}});
    vsSpecInfo pass = oRigwarden::GetSpecInfo(adapters, 0, 2, 2200, 2047 * MB);
    EXPECT_TRUE(!pass.underMinSpec && pass.underMinSpecReason.IsEmpty());

    adapters[0].recommendedVideoQuality = -1;
    EXPECT_STREQ("CPU is under minimal hardware specs. Found: 1 cores @2199MHz). Required: 2 cores @2200MHz).\n"
                 "Your graphics adapter 'gpu 10de:1' is below the minimal hardware specs. The game may not "
                 "function correctly.\n"
                 "Your system is below the minimal hardware specs. We recommend at least 2048 MB of system memory "
                 "to run the game, but your system only has 2048 MB.\n",
                 oRigwarden::GetSpecInfo(adapters, 0, 1, 2199, 2046 * MB).underMinSpecReason.Const());
    vsSpecInfo none = oRigwarden::GetSpecInfo({}, 0, 8, 2200, 2047 * MB + MB - 1);
    EXPECT_STREQ("No graphics adapter detected in your system. This game requires accelerated 3D graphics to "
                 "function correctly.\n",
                 none.underMinSpecReason.Const());
    // Each reason alone sets the flag.
    EXPECT_TRUE(none.underMinSpec);
    EXPECT_TRUE(oRigwarden::GetSpecInfo(adapters, 0, 2, 5000, 1ull << 40).underMinSpec);
    EXPECT_TRUE(oRigwarden::GetSpecInfo(Adapters({{1, 1}}), 0, 2, 0, 1ull << 40).underMinSpec);
    EXPECT_TRUE(oRigwarden::GetSpecInfo(Adapters({{1, 1}}), 0, 2, 2200, 0).underMinSpec);
}

TEST(Collector, ParsesIdsInheritsCutsAndDedupes) {
    std::vector<vsGpuInfo> adapters;
    vsAdapterCollector collector(adapters);
    const struct {
        bool attached;
        std::string id;
        const char* name;
    } kDevices[] = {
        {true, "PCI\\VEN_10DE&DEV_0de1&SUBSYS_00000000&REV_A1", "GeForce"},
        {true, "PCI\\VEN_10DE&DEV_0DE1&SUBSYS_11111111&REV_A1", "GeForce, second output"},
        {false, "PCI\\VEN_1002&DEV_68C1", "Radeon"},
        {true, "PCI\\DEV_1234&SUBSYS_0", "inherits 10DE"}, // the vendor of the device before it
        {true, "PCI\\VEN_8086&DEV_0001", ""},
        {true, "ROOT\\BASICRENDER", "Basic Render"}, // inherits both from the nameless device
        {true, "PCI\\VEN_0000&DEV_0000", "zero ids"},
    };
    for (auto device : kDevices) collector.Add(device.attached, device.id.data(), device.name);
    std::string listed;
    for (const vsGpuInfo& gpu : adapters)
        listed += klpf("%s %x:%x|", gpu.name.Const(), gpu.vendorId, gpu.deviceId).Const();
    EXPECT_EQ("GeForce 10de:de1|inherits 10DE 10de:1234|Basic Render 8086:1|", listed);
}
