// The database rules, the best-adapter choice, the verdict and the adapter collector.
#include "oRigwarden.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

namespace fs = std::filesystem;

namespace {

std::vector<vsGpuInfo> Adapters(std::initializer_list<std::pair<uint32_t, uint32_t>> ids) {
    std::vector<vsGpuInfo> adapters;
    for (auto [vendor, device] : ids) adapters.emplace_back(klpf("gpu %x:%x", vendor, device), vendor, device);
    return adapters;
}

void Apply(const std::string& text, std::vector<vsGpuInfo>& adapters) {
    oRigwarden::ApplyDatabaseText(reinterpret_cast<const uint8_t*>(text.data()), uint32_t(text.size()), adapters);
}

// A database folder of its own for one test, removed afterwards.
class DatabaseFolder {
public:
    DatabaseFolder() : mPath(fs::temp_directory_path() / ("rigwarden-db-" + std::to_string(sCount++))) {
        fs::remove_all(mPath);
        fs::create_directories(mPath);
    }
    ~DatabaseFolder() { fs::remove_all(mPath); }
    void Write(const std::string& name, const std::string& text) {
        std::ofstream(mPath / name, std::ios::binary) << text;
    }
    klString Path() const { return mPath.string().c_str(); }

private:
    static inline int sCount = 0;
    fs::path mPath;
};

const char kNotListed[] =
    "Could not find graphics adapter (0x%X, 0x%X, %s) in our database. If your graphics card is old, you "
    "are probably below the minimal hardware specs and the game may not function correctly.";

} // namespace

TEST(Database, LineRules) {
    auto adapters = Adapters({{0x10DE, 0xDE1}, {0x1002, 0x68C1}, {0x8086, 0x1}, {0x8086, 0x2}, {0x8086, 0x3},
                              {0x8086, 0x4}});
    Apply("; a comment line 10DE, 0DE1, 1, 1, 1, D\n"
          "10DE, 0DE1, 2, 1280, 350, D ; desktop card\n"
          "1002 68C1 -1 1024 40 M\n"
          "0x8086,,,0001\t3\t1920\t77\tm\textra tokens\n" // runs of delimiters; a 7th token
          "8086, 0002, 3, 1600, 50 ; five tokens, M\n"
          "8086, 0003, 1, -1, 12, M\r\n"                  // CR LF: "M\r" still means mobile
          "8086, 0004, 1, 800, 9, \r\n",                  // the CR alone is a sixth token
          adapters);
    EXPECT_FALSE(adapters[0].notListed);
    EXPECT_EQ(2, adapters[0].recommendedVideoQuality);
    EXPECT_EQ(1280u, adapters[0].recommendedWidth);
    EXPECT_EQ(350u, adapters[0].benchmark);
    EXPECT_FALSE(adapters[0].mobile);
    EXPECT_EQ(-1, adapters[1].recommendedVideoQuality);
    EXPECT_TRUE(adapters[1].mobile);
    EXPECT_EQ(77u, adapters[2].benchmark);
    EXPECT_TRUE(adapters[2].mobile);
    EXPECT_TRUE(adapters[3].notListed);
    EXPECT_TRUE(adapters[4].mobile);
    EXPECT_EQ(4294967295u, adapters[4].recommendedWidth);
    EXPECT_FALSE(adapters[5].notListed);
    EXPECT_FALSE(adapters[5].mobile);
}

TEST(Database, IdTokensOfEveryLengthAndForm) {
    // Up to eight bare hex digits, and everything the C runtime reads beyond that.
    const struct {
        const char* id;
        uint32_t value;
    } cases[] = {{"FFFFFFFF", 0xFFFFFFFF}, {"000010de", 0x10DE}, {"0000010DE", 0x10DE}, {"1000010DE", 0x10DE},
                 {"-1", 0xFFFFFFFF},       {"+10de", 0x10DE},   {"10de\r", 0x10DE},  {"10dg", 0x10D},
                 {"0x10", 0x10},           {"zz", 0}};
    for (const auto& c : cases) {
        auto adapters = Adapters({{c.value, 0x7}});
        Apply(std::string(c.id) + " 7 1 2 3 D\n", adapters);
        EXPECT_FALSE(adapters[0].notListed) << c.id;
    }
}

TEST(Database, FirstRecordWinsAndEveryMatchingAdapterTakesIt) {
    std::vector<vsGpuInfo> adapters = Adapters({{0x10DE, 0x1}, {0x10DE, 0x1}});
    Apply("10de, 1, 3, 1920, 500, D\n10DE, 0001, 1, 800, 5, M\n", adapters);
    for (const vsGpuInfo& adapter : adapters) {
        EXPECT_EQ(500u, adapter.benchmark);
        EXPECT_EQ(3, adapter.recommendedVideoQuality);
    }
}

TEST(Database, FilesAreReadInListingOrderAndEmptyFilesRepeatThePrevious) {
    DatabaseFolder db;
    db.Write("a.cfg", "10DE, 0002, 4, 2560, 900, D\n");
    db.Write("b.cfg", "10DE, 0002, 1, 640, 1, D\n10DE, 0003, 2, 1280, 300, M\n");
    db.Write("c.cfg", "");
    db.Write("notes.txt", "10DE, 0004, 2, 1280, 300, M\n");
    auto adapters = Adapters({{0x10DE, 0x3}, {0x10DE, 0x2}, {0x10DE, 0x4}});
    uint32_t best = 99;
    oRigwarden::GetGpuInfo({db.Path()}, adapters, best);
    // Listing order is the platform's; whichever file came first, exactly one record per pair
    // was taken and the best adapter follows from it.
    EXPECT_FALSE(adapters[0].notListed);
    EXPECT_FALSE(adapters[1].notListed);
    EXPECT_TRUE(adapters[2].notListed);
    EXPECT_TRUE(adapters[0].notListedInfo.IsEmpty());
    EXPECT_STREQ(klpf(kNotListed, 0x10DE, 0x4, "gpu 10de:4").Const(), adapters[2].notListedInfo.Const());
    EXPECT_EQ(adapters[1].benchmark > adapters[0].benchmark ? 1u : 0u, best);

    // Missing folders, a folder that is a file, and no folder at all change nothing.
    auto lonely = Adapters({{0x1234, 0x5678}});
    oRigwarden::GetGpuInfo({"/no/such/folder", klpf("%s/a.cfg", db.Path().Const()), ""}, lonely, best);
    EXPECT_TRUE(lonely[0].notListed);
    EXPECT_EQ(0u, best);
}

TEST(Database, OversizedFilesAreSkippedAndColonsAreNames) {
    DatabaseFolder db;
    db.Write("big.cfg", "10DE, 0001, 4, 2560, 900, D\n" + std::string(16 << 20, ';'));
#if !defined(_WIN32) // Windows names cannot hold ':'
    db.Write("a:b.cfg", "10DE, 0002, 2, 1280, 300, M\n");
#endif
    auto adapters = Adapters({{0x10DE, 0x1}, {0x10DE, 0x2}});
    uint32_t best = 99;
    oRigwarden::GetGpuInfo({db.Path()}, adapters, best);
    EXPECT_TRUE(adapters[0].notListed);
#if !defined(_WIN32)
    EXPECT_EQ(300u, adapters[1].benchmark);
#endif
}

TEST(Database, BestAdapterChoice) {
    auto adapters = Adapters({{1, 1}, {2, 2}, {3, 3}, {4, 4}});
    EXPECT_EQ(0u, oRigwarden::ChooseBestAdapter(adapters)); // all unlisted: the first
    adapters[1].benchmark = 10;
    adapters[1].recommendedVideoQuality = 1;
    adapters[2].benchmark = 10;
    adapters[2].recommendedVideoQuality = 2; // a tie goes to the higher quality
    adapters[3].benchmark = 10;
    adapters[3].recommendedVideoQuality = 2; // a full tie to the earlier adapter
    EXPECT_EQ(2u, oRigwarden::ChooseBestAdapter(adapters));

    // A database entry with benchmark 0 and quality -1 loses to an unlisted adapter.
    auto virtualFirst = Adapters({{0x15AD, 0x405}, {0x10DE, 0x1}});
    virtualFirst[0].notListed = false;
    virtualFirst[0].recommendedVideoQuality = -1;
    EXPECT_EQ(1u, oRigwarden::ChooseBestAdapter(virtualFirst));
    EXPECT_EQ(0u, oRigwarden::ChooseBestAdapter({}));
}

TEST(Verdict, MessagesInOrderAndBoundaries) {
    const uint64_t MB = 1 << 20;
    auto adapters = Adapters({{0x10DE, 0x1}});
    vsSpecInfo pass = oRigwarden::GetSpecInfo(adapters, 0, 2, 2200, 2047 * MB);
    EXPECT_FALSE(pass.underMinSpec);
    EXPECT_TRUE(pass.underMinSpecReason.IsEmpty());

    adapters[0].recommendedVideoQuality = -1;
    vsSpecInfo all = oRigwarden::GetSpecInfo(adapters, 0, 1, 2199, 2046 * MB);
    EXPECT_TRUE(all.underMinSpec);
    EXPECT_STREQ("CPU is under minimal hardware specs. Found: 1 cores @2199MHz). Required: 2 cores @2200MHz).\n"
                 "Your graphics adapter 'gpu 10de:1' is below the minimal hardware specs. The game may not "
                 "function correctly.\n"
                 "Your system is below the minimal hardware specs. We recommend at least 2048 MB of system memory "
                 "to run the game, but your system only has 2048 MB.\n",
                 all.underMinSpecReason.Const());

    vsSpecInfo none = oRigwarden::GetSpecInfo({}, 0, 8, 2200, 2047 * MB + MB - 1);
    EXPECT_STREQ("No graphics adapter detected in your system. This game requires accelerated 3D graphics to "
                 "function correctly.\n",
                 none.underMinSpecReason.Const());
    EXPECT_TRUE(oRigwarden::GetSpecInfo(adapters, 0, 2, 5000, 1ull << 40).underMinSpec); // the GPU alone
    EXPECT_TRUE(oRigwarden::GetSpecInfo(Adapters({{1, 1}}), 0, 2, 0, 1ull << 40).underMinSpec);
}

TEST(Collector, ParsesIdsInheritsCutsAndDedupes) {
    std::vector<vsGpuInfo> adapters;
    vsAdapterCollector collector(adapters);
    char first[] = "PCI\\VEN_10DE&DEV_0de1&SUBSYS_00000000&REV_A1";
    collector.Add(true, first, "GeForce");
    char twin[] = "PCI\\VEN_10DE&DEV_0DE1&SUBSYS_11111111&REV_A1";
    collector.Add(true, twin, "GeForce, second output");
    char detached[] = "PCI\\VEN_1002&DEV_68C1";
    collector.Add(false, detached, "Radeon");
    char noVendor[] = "PCI\\DEV_1234&SUBSYS_0";
    collector.Add(true, noVendor, "inherits 10DE"); // the vendor of the device before it
    char noName[] = "PCI\\VEN_8086&DEV_0001";
    collector.Add(true, noName, "");
    char garbage[] = "ROOT\\BASICRENDER";
    collector.Add(true, garbage, "Basic Render"); // inherits both from the nameless device
    ASSERT_EQ(3u, adapters.size());
    EXPECT_STREQ("GeForce", adapters[0].name.Const());
    EXPECT_EQ(0x10DEu, adapters[0].vendorId);
    EXPECT_EQ(0xDE1u, adapters[0].deviceId);
    EXPECT_EQ(0x10DEu, adapters[1].vendorId);
    EXPECT_EQ(0x1234u, adapters[1].deviceId);
    EXPECT_STREQ("Basic Render", adapters[2].name.Const());
    EXPECT_EQ(0x8086u, adapters[2].vendorId);
    EXPECT_EQ(0x1u, adapters[2].deviceId);
    EXPECT_STREQ("PCI\\VEN_10DE", first); // cut at every "&"

    char zero[] = "PCI\\VEN_0000&DEV_0000";
    std::vector<vsGpuInfo> none;
    vsAdapterCollector fresh(none);
    fresh.Add(true, zero, "zero ids");
    EXPECT_TRUE(none.empty());
}

TEST(Database, BadInputIsReadAsFarAsItGoes) {
    DatabaseFolder db;
    std::string binary(65536, '\0');
    for (size_t i = 0; i < binary.size(); ++i) {
        binary[i] = char((i * 2654435761u) >> 13);
        if (std::strchr(", \t", binary[i])) binary[i] = 'x'; // noise, but never a record
    }
    db.Write("a-binary.cfg", binary);
    db.Write("b-long.cfg", std::string(1 << 20, 'x') + "\n" + std::string(1 << 20, ',') +
                               "\n10DE, 0001, 2, 1920, 700, D\n");
    db.Write("c-garbage.cfg", "zz10DE, 0xGG, abc, -5x, 99999999999999999999, Mobile\n"
                              "0x10DE 0x0002 +3 1e3 12abc m\n");
    std::string huge;
    for (int i = 0; i < 200000; ++i) huge += "1234, " + std::to_string(i) + ", 1, 1280, 10, D ; filler\n";
    db.Write("d-huge.cfg", huge);
    db.Write("e-unreadable.cfg", "10DE, 0003, 4, 3840, 9000, D\n");
    const std::filesystem::path unreadable = std::filesystem::path(db.Path().Const()) / "e-unreadable.cfg";
    std::filesystem::permissions(unreadable, std::filesystem::perms::none);

    auto adapters = Adapters({{0x10DE, 0x1}, {0x10DE, 0x2}, {0x0, 0x0}, {0x1234, 0x199999}});
    uint32_t best = 99;
    oRigwarden::GetGpuInfo({db.Path()}, adapters, best);
    EXPECT_EQ(700u, adapters[0].benchmark); // the record after the 1 MB lines
    EXPECT_EQ(3, adapters[1].recommendedVideoQuality);
    EXPECT_EQ(1u, adapters[1].recommendedWidth); // "1e3" stops at the "e"
    EXPECT_EQ(12u, adapters[1].benchmark);
    EXPECT_TRUE(adapters[1].mobile);
    // "zz10DE" and "0xGG" have no digits: the record is for vendor 0, device 0.
    EXPECT_FALSE(adapters[2].notListed);
    EXPECT_EQ(0, adapters[2].recommendedVideoQuality);         // "abc"
    EXPECT_EQ(4294967291u, adapters[2].recommendedWidth);      // "-5x" wraps
    EXPECT_EQ(0xFFFFFFFFu, adapters[2].benchmark);              // saturated, then cut to 32 bits
    EXPECT_FALSE(adapters[3].notListed); // ids are hexadecimal: "199999" is one of 200000 records
    EXPECT_LT(best, adapters.size());
    std::filesystem::permissions(unreadable, std::filesystem::perms::owner_all); // so it can be removed
}
