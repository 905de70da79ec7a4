#include "keel/klini.h"

#include "keel/klconsole.h"
#include "keel/klfileplatform.h"
#include "keel/kllifetime.h"
#include "keel/klplatform.h"
#include "keel/klsystem.h"
#include "keel_test.h"

#include <map>

namespace fs = std::filesystem;
using keeltest::CaptureLog;
using Entries = std::map<std::string, std::string>; // "section/key" -> raw value
using Lines = std::vector<std::string>;

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
    // Loads with the command line args (a program's), the default file "game.ini".
    static bool Load(klIni& ini, const std::string& args) {
        klClearCommandLine();
        klParseCommandLine(args.c_str());
        return ini.Load("game.ini");
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
    EXPECT_EQ(Entries({{"default/1", "b"}, {"default/a", "1"}, {"video/height", "600"}, {"video/key", "x"},
                       {"video/width", "1024"}, {"y/0", "z"}}),
              AllEntries(ini, {"default", "video", "y"}));
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
    const std::pair<std::string, std::string> cases[] = {
        {"q='unclosed", "Improper end to quoted value for key \"default/q\""},
        {"[s] q=\"a\"\"", "Improper end to quoted value for key \"s/q\""},
        {k1024 + "=v", "Key name exceeded 1024 characters"},
        {"k=" + k1024, "Value exceeded 1024 characters"},
        {"k='" + k1023 + "''x'", "Value exceeded 1024 characters"},
        {"[" + k1024 + "]", "Section name exceeded 1024 characters"},
        {"." + k1024, "Instruction exceeded 1024 characters"},
        {"[open\n]", "Premature end for section starting with \"open\""},
        {"[open", "Premature end for section starting with \"open\""},
        {".frobnicate x", "Did not understand INI processor instruction 'frobnicate x'"},
        {".include \"never-closed.ini", "Instruction end-quote was not found"},
    };
    for (const auto& [text, message] : cases) {
        klIni ini;
        CaptureLog log;
        EXPECT_FALSE(ini.Parse(("ok=1 " + text).c_str())) << message;
        EXPECT_EQ(Lines{message}, log.Lines());
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
                          "[paths] root=@home data=@(default)root saves=@paths|data bad=@a|b|c worse=@a|b|c|d\n"
                          "[default] root=@home self=@self\n"));
    // "@home" in [paths] means the section's own key, which does not exist.
    const char* const rows[][3] = {{"default", "home", "/home/player"}, {"default", "unset", "<null>"},
                                   {"default", "cash", "$5"},           {"default", "mail", "@me"},
                                   {"paths", "root", "<null>"},         {"paths", "saves", "/home/player"}};
    for (const auto& [section, key, value] : rows)
        EXPECT_EQ(value, Value(ini, section, key)) << section << "/" << key;
    EXPECT_STREQ("@(default)root", ini.GetRawValue("paths", "data"));
    CaptureLog log;
    EXPECT_EQ("<null>", Value(ini, "default", "self"));
    EXPECT_EQ(Lines{"INI recursion too deep. Involving \"[default]self\""}, log.Lines());
    EXPECT_EQ("<null>", Value(ini, "paths", "bad"));
    EXPECT_EQ("<null>", Value(ini, "paths", "worse"));
    EXPECT_EQ(3u, log.Lines().size());
    // A chain of exactly eight references still resolves.
    klIni chain;
    ASSERT_TRUE(chain.Parse("k0=end k1=@k0 k2=@k1 k3=@k2 k4=@k3 k5=@k4 k6=@k5 k7=@k6 k8=@k7 k9=@k8"));
    EXPECT_EQ("end", Value(chain, "default", "k8"));
    EXPECT_EQ("<null>", Value(chain, "default", "k9"));
    keeltest::CaptureAsserts asserts;
    EXPECT_EQ(nullptr, ini.GetValue(nullptr, "home"));
    EXPECT_EQ(Lines{"s != NULL"}, asserts.Exprs());
}

// An optional include names one file: brackets in its name are no pattern.
TEST_F(KlIniFiles, IncludesOverrideInOrderAndResolveBesideTheirFile) {
    Write("cfg/main.ini", "a=main b=main c=main\n"
                          ".include parts/one.ini\n"
                          "b=after\n"
                          ".include? parts/missing.ini\n"
                          ".include-all \"conf.d\"\n"
                          ".include-all more.d/\n"
                          ".include? opt[1].ini\n.include? skip[2].ini\n");
    Write("cfg/parts/one.ini", "a=one b=one [extra] x=1\n.include two.ini\n");
    Write("cfg/parts/two.ini", "[default] a=two\n");
    Write("cfg/conf.d/20-late.INI", "c=late");
    Write("cfg/conf.d/10-early.ini", "c=early d=early");
    Write("cfg/conf.d/notes.txt", "c=never");
    Write("cfg/more.d/x.ini", "e=trailing");
    Write("cfg/opt[1].ini", "f=bracketed");
    Write("cfg/skip2.ini", "g=matched-as-a-pattern");
    klIni ini;
    ASSERT_TRUE(Load(ini, "--config " + Path("cfg/main.ini")));
    EXPECT_EQ(Entries({{"default/a", "two"}, {"default/b", "after"}, {"default/c", "late"}, {"default/d", "early"},
                       {"default/e", "trailing"}, {"default/f", "bracketed"}, {"extra/x", "1"}}),
              AllEntries(ini, {"default", "extra"}));
}

TEST_F(KlIniFiles, IncludeFailuresAreReportedWithTheirFiles) {
    const std::string dir = mDir.string() + kl::platform::PathSeparator();
    const std::string self = Write("self.ini", "a=1\n.include self.ini\n"), ping = Write("ping.ini", ".include pong.ini");
    Write("pong.ini", ".include ping.ini");
    const std::pair<std::string, Lines> cases[] = {
        {self,
         {"Recursively included '" + dir + "self.ini'. Stack follows:", "  " + self,
          "Could not parse included config file at '" + dir + "self.ini'"}},
        {ping,
         {"Recursively included '" + dir + "ping.ini'. Stack follows:", "  " + ping, "  " + dir + "pong.ini",
          "Could not parse included config file at '" + dir + "ping.ini'",
          "Could not parse included config file at '" + dir + "pong.ini'"}},
        {Write("nofolder.ini", ".include-all nowhere"), {".include-all '" + dir + "nowhere': directory does not exist"}},
        {Write("missing.ini", ".include gone.ini"), {"Could not load included config file at '" + dir + "gone.ini'"}},
    };
    for (const auto& [file, lines] : cases) {
        klIni ini;
        CaptureLog log;
        EXPECT_FALSE(Load(ini, "--config=" + file));
        Lines expected = {"Running out of [" + fs::current_path().string() + "]"};
        expected.insert(expected.end(), lines.begin(), lines.end());
        expected.push_back("Could not parse config file at '" + file + "'");
        EXPECT_EQ(expected, log.Lines());
    }
    // Files open at once: 32 nest, a 33rd is refused as a cycle would be.
    for (int depth : {32, 33}) {
        for (int i = 0; i < depth; ++i)
            Write("deep/" + std::to_string(i) + ".ini", i + 1 < depth ? ".include " + std::to_string(i + 1) + ".ini" : "");
        klIni ini;
        CaptureLog log;
        EXPECT_EQ(depth == 32, Load(ini, "--config " + Path("deep/0.ini"))) << depth;
    }
#ifndef _WIN32
    // A file that is listed but gone by the time it is read: a dangling link.
    fs::create_directories(mDir / "vanish");
    fs::create_symlink(mDir / "vanish/nothing", mDir / "vanish/ghost.ini");
    klIni ini;
    CaptureLog log;
    EXPECT_FALSE(ini.Parse((".include-all " + Path("vanish")).c_str()));
    EXPECT_EQ(Lines{"Could not load included config file at '" + Path("vanish/ghost.ini") + "'"}, log.Lines());
#endif
}

TEST_F(KlIniFiles, WriteReadsBackTheSameConfigurationAndDumpFormat) {
    klIni ini;
    ASSERT_TRUE(ini.Parse("plain=1 list words [Odd Section] spaced=' a b ' quote='say \"x\" ''y''' "
                          "marks=\"[;]\" empty='' ref=@plain env=$HOME [empty section]"));
    ASSERT_TRUE(ini.SetValue("added", "key", "\"starts with a quote"));
    EXPECT_FALSE(ini.SetValue("added", "has space", "v"));
    EXPECT_FALSE(ini.SetValue("bad]name", "k", "v"));
    ASSERT_TRUE(ini.Write(Path("written.ini").c_str()));
    klIni again;
    ASSERT_TRUE(Load(again, "--config " + Path("written.ini")));
    const std::vector<std::string> sections = {"default", "odd section", "added", "empty section"};
    EXPECT_EQ(AllEntries(ini, sections), AllEntries(again, sections));
    EXPECT_EQ(ini.SectionCount(), again.SectionCount());

    klIni small;
    ASSERT_TRUE(small.Parse("b=2 a=1 [Z] k=v [y]"));
    testing::internal::CaptureStdout();
    small.Dump();
    EXPECT_EQ("[default]\n  a = 1\n  b = 2\n[y]\n[z]\n  k = v\n", testing::internal::GetCapturedStdout());
    CaptureLog log;
    EXPECT_FALSE(small.Write(Path("no/such/folder/x.ini").c_str()));
    EXPECT_EQ(Lines{"Unable to write ini file to: '" + Path("no/such/folder/x.ini") + "'"}, log.Lines());
}

TEST_F(KlIniFiles, LoadOptionsOverridesDumpAndCvars) {
    Write("game.ini", "[video] width=800 [cvars] R_Width=@video|width r_name='a b'");
    const fs::path startFolder = fs::current_path();
    klVarRef width("r_width"), name("r_name"), extra("EXTRA");
    klIni ini;
    CaptureLog log;
    ASSERT_TRUE(Load(ini, "--oconfig [video]width=1280,--dir " + mDir.string() + ",--oconfig\t[cvars]extra=0x10"));
    EXPECT_EQ(Lines({"Running out of [" + fs::current_path().string() + "]",
                     "Command Line Overrides: [video]width=1280", "Command Line Overrides: [cvars]extra=0x10"}),
              log.Lines());
    EXPECT_EQ("game.ini", std::string(ini.FileName()));
    EXPECT_EQ(1280, width.GetInt());
    EXPECT_STREQ("a b", name.GetString());
    EXPECT_EQ(16u, extra.GetUInt());

    log.Clear();
    testing::internal::CaptureStdout();
    EXPECT_FALSE(Load(ini, "--config --oconfig [video]width=1 --dump-config"));
    EXPECT_EQ("[video]\n  width = 1\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ("Skipping ini file", log.Lines().at(1));
    EXPECT_EQ("Exiting after --dump-config.", log.Lines().back());
    EXPECT_FALSE(Load(ini, "--config missing.ini"));
    EXPECT_EQ("Could not load config file at 'missing.ini'", log.Lines().back());
    EXPECT_FALSE(Load(ini, "--config game.ini --oconfig [broken"));
    EXPECT_EQ("Could not parse command line overrides.", log.Lines().back());
    fs::current_path(startFolder);
}
