#include "keel/klini.h"

#include "keel/klconsole.h"
#include "keel/kllifetime.h"
#include "keel/klfileplatform.h"
#include "keel/klplatform.h"
#include "keel/klsystem.h"
#include "keel_test.h"

#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>

namespace fs = std::filesystem;
using keeltest::CaptureLog;
using Entries = std::map<std::string, std::string>; // "section/key" -> raw value

namespace {

Entries AllEntries(const klIni& ini, const std::vector<std::string>& sections) {
    Entries entries;
    for (const std::string& s : sections)
        ini.ForEachKey(s.c_str(), [&](const char* k, const char* v) { entries[s + "/" + k] = v; });
    return entries;
}

std::string Value(klIni& ini, const char* section, const char* key) {
    const char* v = ini.GetValue(section, key);
    return v ? v : "<null>";
}

class KlIniFiles : public keeltest::TempFolderTest {
protected:
    // The command line, and the console that [cvars] sets, live from Initialize on.
    static void SetUpTestSuite() { klObjectLifetimeManager::Initialize(); }
    static void TearDownTestSuite() { klObjectLifetimeManager::Shutdown(); }
    void TearDown() override {
        klClearCommandLine();
        TempFolderTest::TearDown();
    }
};

} // namespace

TEST(KlIni, TokensInteractAcrossLinesQuotesAndSections) {
    klIni ini;
    ASSERT_TRUE(ini.Parse("a = 1 b\n"
                          "[Video] width=1024 height=768 ; trailing comment width=1\n"
                          "key=x[y]z\n"
                          "[quotes] q1='it''s' q2=\"say \"\"hi\"\"\" q3=\"[not; a section]\"\n"
                          "spread\n=\nover-lines  =alone  ==lonely\n"
                          "[VIDEO] Height=600\r\n"));
    EXPECT_EQ(Entries({{"default/1", "b"}, {"default/a", "1"}}), AllEntries(ini, {"default"}));
    EXPECT_EQ(Entries({{"video/height", "600"}, {"video/key", "x"}, {"video/width", "1024"}}),
              AllEntries(ini, {"video"}));
    EXPECT_EQ(Entries({{"y/0", "z"}}), AllEntries(ini, {"y"}));
    EXPECT_EQ("it's", Value(ini, "QUOTES", "q1"));
    EXPECT_EQ("say \"hi\"", Value(ini, "quotes", "Q2"));
    EXPECT_EQ("[not; a section]", Value(ini, "quotes", "q3"));
    EXPECT_EQ("over-lines", Value(ini, "quotes", "spread")); // "=" and the value may follow lines later
    EXPECT_EQ("alone", Value(ini, "quotes", "4"));           // a bare "=value" is a list entry
    EXPECT_EQ("=lonely", Value(ini, "quotes", "5"));         // "=" twice: the second starts the value
    EXPECT_EQ(4u, ini.SectionCount());

    // Bytes outside ASCII and control characters are ordinary key and value characters.
    klIni binary;
    EXPECT_TRUE(binary.Parse("\x01\x7f\xff=\xc3\xa9\x02 [s\x80]\x90"));
    EXPECT_EQ("\xc3\xa9\x02", Value(binary, "default", "\x01\x7f\xff"));
    EXPECT_EQ("\x90", Value(binary, "s\x80", "0"));
}

TEST(KlIni, ParseErrorsNameTheProblemAndKeepWhatCameBefore) {
    const std::string k1023(1023, 'k'), k1024(1024, 'k');
    struct Case {
        std::string text, message;
    } const cases[] = {
        {"ok=1 q='unclosed", "Improper end to quoted value for key \"default/q\""},
        {"ok=1 [s] q=\"a\"\"", "Improper end to quoted value for key \"s/q\""},
        {"ok=1 " + k1024 + "=v", "Key name exceeded 1024 characters"},
        {"ok=1 k=" + k1024, "Value exceeded 1024 characters"},
        {"ok=1 k='" + k1023 + "''x'", "Value exceeded 1024 characters"},
        {"ok=1 [" + k1024 + "]", "Section name exceeded 1024 characters"},
        {"ok=1 ." + k1024, "Instruction exceeded 1024 characters"},
        {"ok=1 [open\n]", "Premature end for section starting with \"open\""},
        {"ok=1 [open", "Premature end for section starting with \"open\""},
        {"ok=1 .frobnicate x", "Did not understand INI processor instruction 'frobnicate x'"},
        {"ok=1 .include \"never-closed.ini", "Instruction end-quote was not found"},
    };
    for (const Case& c : cases) {
        klIni ini;
        CaptureLog log;
        EXPECT_FALSE(ini.Parse(c.text.c_str())) << c.message;
        EXPECT_EQ(std::vector<std::string>{c.message}, log.Lines());
        EXPECT_EQ(std::vector<uint32_t>{klLogError}, log.Levels());
        EXPECT_EQ("1", Value(ini, "default", "ok"));
    }
    klIni limits;
    EXPECT_TRUE(limits.Parse(("[" + k1023 + "] " + k1023 + "=" + k1023).c_str()));
    EXPECT_EQ(k1023, Value(limits, k1023.c_str(), k1023.c_str()));
}

TEST(KlIni, ReferencesEnvironmentAndCycles) {
    kl::platform::SetEnv("KLINI_TEST_HOME", "/home/player");
    klIni ini;
    ASSERT_TRUE(ini.Parse("home=$KLINI_TEST_HOME unset=$KLINI_TEST_UNSET cash=$$5 mail=@@me\n"
                          "[paths] root=@home data=@(default)root saves=@paths|data bad=@a|b|c\n"
                          "[default] root=@home self=@self\n"));
    EXPECT_EQ("/home/player", Value(ini, "default", "home"));
    EXPECT_EQ("<null>", Value(ini, "default", "unset"));
    EXPECT_EQ("$5", Value(ini, "default", "cash"));
    EXPECT_EQ("@me", Value(ini, "default", "mail"));
    // "@home" in [paths] means the section's own key, which does not exist.
    EXPECT_EQ("<null>", Value(ini, "paths", "root"));
    EXPECT_EQ("/home/player", Value(ini, "paths", "saves")); // two references, then $
    EXPECT_STREQ("@(default)root", ini.GetRawValue("paths", "data"));

    CaptureLog log;
    EXPECT_EQ("<null>", Value(ini, "default", "self"));
    EXPECT_EQ(std::vector<std::string>{"INI recursion too deep. Involving \"[default]self\""}, log.Lines());
    log.Clear();
    EXPECT_EQ("<null>", Value(ini, "paths", "bad"));
    EXPECT_EQ(1u, log.Lines().size());
    // A chain of exactly eight references still resolves.
    klIni chain;
    ASSERT_TRUE(chain.Parse("k0=end k1=@k0 k2=@k1 k3=@k2 k4=@k3 k5=@k4 k6=@k5 k7=@k6 k8=@k7 k9=@k8"));
    EXPECT_EQ("end", Value(chain, "default", "k8"));
    EXPECT_EQ("<null>", Value(chain, "default", "k9"));

    keeltest::CaptureAsserts asserts;
    EXPECT_EQ(nullptr, ini.GetValue(nullptr, "home"));
    EXPECT_EQ(std::vector<std::string>{"s != NULL"}, asserts.Exprs());
}

TEST_F(KlIniFiles, IncludesOverrideInOrderAndResolveBesideTheirFile) {
    Write("cfg/main.ini", "a=main b=main c=main\n"
                          ".include parts/one.ini\n"
                          "b=after\n"
                          ".include? parts/missing.ini\n"
                          ".include-all \"conf.d\"\n"
                          ".include-all more.d/\n");
    Write("cfg/parts/one.ini", "a=one b=one [extra] x=1\n.include two.ini\n");
    Write("cfg/parts/two.ini", "[default] a=two\n");
    Write("cfg/conf.d/20-late.INI", "c=late");
    Write("cfg/conf.d/10-early.ini", "c=early d=early");
    Write("cfg/conf.d/notes.txt", "c=never");
    Write("cfg/more.d/x.ini", "e=trailing");
    klIni ini;
    klClearCommandLine();
    klParseCommandLine(("--config " + (mDir / "cfg/main.ini").string()).c_str());
    ASSERT_TRUE(ini.Load("unused.ini"));
    EXPECT_EQ(Entries({{"default/a", "two"}, {"default/b", "after"}, {"default/c", "late"},
                       {"default/d", "early"}, {"default/e", "trailing"}, {"extra/x", "1"}}),
              AllEntries(ini, {"default", "extra"}));
}

// An optional include names one file: brackets in its name are no pattern.
TEST_F(KlIniFiles, OptionalIncludeTakesItsNameLiterally) {
    Write("cfg/main.ini", ".include? opt[1].ini\n.include? skip[2].ini\n");
    Write("cfg/opt[1].ini", "a=bracketed");
    Write("cfg/skip2.ini", "b=matched-as-a-pattern");
    klIni ini;
    klClearCommandLine();
    klParseCommandLine(("--config " + (mDir / "cfg/main.ini").string()).c_str());
    ASSERT_TRUE(ini.Load("unused.ini"));
    EXPECT_EQ(Entries({{"default/a", "bracketed"}}), AllEntries(ini, {"default"}));
}

TEST_F(KlIniFiles, IncludeFailuresAreReportedWithTheirFiles) {
    const std::string self = Write("self.ini", "a=1\n.include self.ini\n");
    const std::string ping = Write("ping.ini", ".include pong.ini");
    const std::string pong = Write("pong.ini", ".include ping.ini");
    const std::string nofolder = Write("nofolder.ini", ".include-all nowhere");
    const std::string missing = Write("missing.ini", ".include gone.ini");
    const std::string sep(1, kl::platform::PathSeparator());
    const std::string dir = mDir.string() + sep;
    struct Case {
        std::string file;
        std::vector<std::string> lines;
    } const cases[] = {
        {self,
         {"Recursively included '" + dir + "self.ini'. Stack follows:", "  " + self,
          "Could not parse included config file at '" + dir + "self.ini'"}},
        {ping,
         {"Recursively included '" + dir + "ping.ini'. Stack follows:", "  " + ping, "  " + dir + "pong.ini",
          "Could not parse included config file at '" + dir + "ping.ini'",
          "Could not parse included config file at '" + dir + "pong.ini'"}},
        {nofolder, {".include-all '" + dir + "nowhere': directory does not exist"}},
        {missing, {"Could not load included config file at '" + dir + "gone.ini'"}},
    };
    for (const Case& c : cases) {
        klIni ini;
        CaptureLog log;
        klClearCommandLine();
        klParseCommandLine(("--config=" + c.file).c_str());
        EXPECT_FALSE(ini.Load("unused.ini"));
        std::vector<std::string> expected = {"Running out of [" + fs::current_path().string() + "]"};
        expected.insert(expected.end(), c.lines.begin(), c.lines.end());
        expected.push_back("Could not parse config file at '" + c.file + "'");
        EXPECT_EQ(expected, log.Lines());
    }
#ifndef _WIN32
    // A file that is listed but gone by the time it is read: a dangling link.
    fs::create_directories(mDir / "vanish");
    fs::create_symlink(mDir / "vanish/nothing", mDir / "vanish/ghost.ini");
    klIni ini;
    CaptureLog log;
    EXPECT_FALSE(ini.Parse((".include-all " + (mDir / "vanish").string()).c_str()));
    EXPECT_EQ(std::vector<std::string>{"Could not load included config file at '" +
                                       (mDir / "vanish/ghost.ini").string() + "'"},
              log.Lines());
#endif
}

TEST_F(KlIniFiles, WriteReadsBackTheSameConfigurationAndDumpFormat) {
    klIni ini;
    ASSERT_TRUE(ini.Parse("plain=1 list words [Odd Section] spaced=' a b ' quote='say \"x\" ''y''' "
                          "marks=\"[;]\" empty='' ref=@plain env=$HOME [empty section]"));
    ASSERT_TRUE(ini.SetValue("added", "key", "\"starts with a quote"));
    EXPECT_FALSE(ini.SetValue("added", "has space", "v"));
    EXPECT_FALSE(ini.SetValue("bad]name", "k", "v"));
    const std::string path = (mDir / "written.ini").string();
    ASSERT_TRUE(ini.Write(path.c_str()));
    klIni again;
    klClearCommandLine();
    klParseCommandLine(("--config " + path).c_str());
    ASSERT_TRUE(again.Load("unused.ini"));
    const std::vector<std::string> sections = {"default", "odd section", "added", "empty section"};
    EXPECT_EQ(AllEntries(ini, sections), AllEntries(again, sections));
    EXPECT_EQ(ini.SectionCount(), again.SectionCount());

    klIni small;
    ASSERT_TRUE(small.Parse("b=2 a=1 [Z] k=v [y]"));
    testing::internal::CaptureStdout();
    small.Dump();
    EXPECT_EQ("[default]\n  a = 1\n  b = 2\n[y]\n[z]\n  k = v\n", testing::internal::GetCapturedStdout());
    CaptureLog log;
    EXPECT_FALSE(small.Write((mDir / "no/such/folder/x.ini").string().c_str()));
    EXPECT_EQ(std::vector<std::string>{"Unable to write ini file to: '" +
                                       (mDir / "no/such/folder/x.ini").string() + "'"},
              log.Lines());
}

TEST_F(KlIniFiles, LoadOptionsOverridesDumpAndCvars) {
    const std::string file = Write("game.ini", "[video] width=800 [cvars] R_Width=@video|width r_name='a b'");
    const fs::path startFolder = fs::current_path();
    klVarRef width("r_width");
    klVarRef name("r_name");
    {
        klIni ini;
        CaptureLog log;
        klParseCommandLine(("--oconfig [video]width=1280,--dir " + mDir.string() +
                            ",--oconfig\t[cvars]extra=0x10")
                               .c_str());
        ASSERT_TRUE(ini.Load("game.ini"));
        EXPECT_EQ(std::vector<std::string>({"Running out of [" + fs::current_path().string() + "]",
                                            "Command Line Overrides: [video]width=1280",
                                            "Command Line Overrides: [cvars]extra=0x10"}),
                  log.Lines());
        EXPECT_EQ("game.ini", std::string(ini.FileName()));
        EXPECT_EQ(1280, width.GetInt());
        EXPECT_STREQ("a b", name.GetString());
        klVarRef extra("EXTRA");
        EXPECT_EQ(16u, extra.GetUInt());

        klClearCommandLine();
        klParseCommandLine("--config --oconfig [video]width=1 --dump-config");
        log.Clear();
        testing::internal::CaptureStdout();
        EXPECT_FALSE(ini.Load("game.ini"));
        EXPECT_EQ("[video]\n  width = 1\n", testing::internal::GetCapturedStdout());
        EXPECT_EQ("Skipping ini file", log.Lines().at(1));
        EXPECT_EQ("Exiting after --dump-config.", log.Lines().back());

        klClearCommandLine();
        klParseCommandLine("--config missing.ini");
        log.Clear();
        EXPECT_FALSE(ini.Load("game.ini"));
        EXPECT_EQ("Could not load config file at 'missing.ini'", log.Lines().back());

        klClearCommandLine();
        klParseCommandLine("--config game.ini --oconfig [broken");
        EXPECT_FALSE(ini.Load("game.ini"));
        EXPECT_EQ("Could not parse command line overrides.", log.Lines().back());
    }
    fs::current_path(startFolder);
}
