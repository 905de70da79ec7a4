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

class KlIniFiles : public keeltest::TempFolderTest {
protected:
    // The command line, and the console that [cvars] sets, live from Initialize on.
    static void SetUpTestSuite() { klObjectLifetimeManager::Initialize(); }
    static void TearDownTestSuite() { klObjectLifetimeManager::Shutdown(); }
    // Loads with the command line args (a program's), the default file "game.ini".
    static bool Load(klIni& ini, const std::string& args) {
        klClearCommandLine();
        klParseCommandLine(args.c_str());
        return ini.Load("game.ini");
    }
};

} // namespace

// High bytes are plain characters; "@home" in [paths] is [paths]home; 8 references chain.
TEST(KlIni, TokensQuotesSectionsAndReferences) {
    kl::platform::SetEnv("KLINI_TEST_HOME", "/home/player");
    klIni ini;
    ASSERT_TRUE(ini.Parse("a = 1 b\n"
                          "[Video] width=1024 height=768 ; trailing comment width=1\n"
                          "key=x[y]z\n"
                          "[quotes] q1='it''s' q2=\"say \"\"hi\"\"\" q3=\"[not; a section]\"\n"
                          "spread\n=\nover-lines  =alone  ==lonely\n[VIDEO] Height=600\r\n"
                          "[s\x80] \x01\x7f\xff=\xc3\xa9\x02\n"
                          "[paths] root=@home data=@(default)root saves=@paths|data bad=@a|b|c\n"
                          "[default] home=$KLINI_TEST_HOME unset=$KLINI_TEST_UNSET cash=$$5 mail=@@me root=@home\n"
                          "self=@self k0=end k1=@k0 k2=@k1 k3=@k2 k4=@k3 k5=@k4 k6=@k5 k7=@k6 k8=@k7 k9=@k8"));
    const char* const rows[][3] = {
        {"video", "height", "600"},         {"video", "key", "x"},         {"video", "width", "1024"},
        {"y", "0", "z"},                    {"default", "a", "1"},         {"default", "1", "b"},
        {"QUOTES", "q1", "it's"},           {"quotes", "Q2", "say \"hi\""}, {"quotes", "q3", "[not; a section]"},
        {"quotes", "spread", "over-lines"}, {"quotes", "4", "alone"},      {"quotes", "5", "=lonely"},
        {"s\x80", "\x01\x7f\xff", "\xc3\xa9\x02"}, {"default", "home", "/home/player"},
        {"default", "unset", nullptr},      {"default", "cash", "$5"},     {"default", "mail", "@me"},
        {"paths", "root", nullptr},         {"paths", "saves", "/home/player"}, {"default", "k8", "end"},
        {"default", "self", nullptr},       {"paths", "bad", nullptr},     {"default", "k9", nullptr}};
    CaptureLog log;
    for (const auto& [section, key, value] : rows)
        EXPECT_STREQ(value, ini.GetValue(section, key)) << section << "/" << key;
    EXPECT_EQ(Lines({"INI recursion too deep. Involving \"[default]self\"",
                     "Malformed INI reference '@a|b|c' in \"[paths]bad\"",
                     "INI recursion too deep. Involving \"[default]k1\""}),
              log.Lines());
}

TEST(KlIni, ParseErrorsNameTheProblemAndKeepWhatCameBefore) {
    const std::string k1023(1023, 'k'), k1024(1024, 'k');
    const std::pair<std::string, std::string> cases[] = {
        {"q='unclosed", "Improper end to quoted value for key \"default/q\""},
        {k1024 + "=v", "Key name exceeded 1024 characters"},
        {"k=" + k1024, "Value exceeded 1024 characters"},
        {"[" + k1024 + "]", "Section name exceeded 1024 characters"},
        {"." + k1024, "Instruction exceeded 1024 characters"},
        {"[open\n]", "Premature end for section starting with \"open\""},
        {".frobnicate x", "Did not understand INI processor instruction 'frobnicate x'"},
        {".include \"never-closed.ini", "Instruction end-quote was not found"},
    };
    for (const auto& [text, message] : cases) {
        klIni ini;
        CaptureLog log;
        EXPECT_FALSE(ini.Parse(("ok=1 " + text).c_str())) << message;
        EXPECT_EQ(Lines{message}, log.Lines());
        EXPECT_STREQ("1", ini.GetValue("default", "ok"));
    }
    klIni limits;
    EXPECT_TRUE(limits.Parse(("[" + k1023 + "] " + k1023 + "=" + k1023).c_str()));
    EXPECT_EQ(k1023, limits.GetValue(k1023.c_str(), k1023.c_str()));
}

// Later files override earlier ones; failures name every file on the way up.
TEST_F(KlIniFiles, IncludesOverrideInOrderAndFailuresNameTheirFiles) {
    Write("cfg/main.ini", "a=main b=main c=main\n"
                          ".include parts/one.ini\n"
                          "b=after\n"
                          ".include? parts/missing.ini\n"
                          ".include-all \"conf.d/\"\n");
    Write("cfg/parts/one.ini", "a=one b=one [extra] x=1\n.include two.ini\n");
    Write("cfg/parts/two.ini", "[default] a=two\n");
    Write("cfg/conf.d/20-late.INI", "c=late");
    Write("cfg/conf.d/10-early.ini", "c=early d=early");
    klIni ini;
    ASSERT_TRUE(Load(ini, "--config " + Path("cfg/main.ini")));
    EXPECT_EQ(Entries({{"default/a", "two"}, {"default/b", "after"}, {"default/c", "late"}, {"default/d", "early"},
                       {"extra/x", "1"}}),
              AllEntries(ini, {"default", "extra"}));

    const std::string dir = mDir.string() + kl::platform::PathSeparator();
    const std::string ping = Write("ping.ini", ".include pong.ini");
    Write("pong.ini", ".include ping.ini");
    const std::pair<std::string, Lines> cases[] = {
        {ping,
         {"Recursively included '" + dir + "ping.ini'. Stack follows:", "  " + ping, "  " + dir + "pong.ini",
          "Could not parse included config file at '" + dir + "ping.ini'",
          "Could not parse included config file at '" + dir + "pong.ini'"}},
        {Write("nofolder.ini", ".include-all nowhere"),
         {".include-all '" + dir + "nowhere': directory does not exist"}},
        {Write("missing.ini", ".include gone.ini"), {"Could not load included config file at '" + dir + "gone.ini'"}},
    };
    for (const auto& [file, lines] : cases) {
        CaptureLog log;
        EXPECT_FALSE(Load(ini, "--config=" + file));
        Lines expected = lines;
        expected.push_back("Could not parse config file at '" + file + "'");
        EXPECT_EQ(expected, Lines(log.Lines().begin() + 1, log.Lines().end())); // after "Running out of"
    }
}

// What Write quotes reads back the same; --dump-config prints and stops; cvars come last.
TEST_F(KlIniFiles, WriteLoadOptionsOverridesDumpAndCvars) {
    klIni ini;
    ASSERT_TRUE(ini.Parse("plain=1 list words [Odd Section] spaced=' a b ' quote='say \"x\" ''y''' "
                          "marks=\"[;]\" empty='' ref=@plain [empty section]"));
    ASSERT_TRUE(ini.SetValue("added", "key", "\"starts with a quote"));
    EXPECT_FALSE(ini.SetValue("added", "has space", "v") || ini.SetValue("bad]name", "k", "v"));
    ASSERT_TRUE(ini.Write(Path("written.ini").c_str()));
    klIni again;
    ASSERT_TRUE(Load(again, "--config " + Path("written.ini")));
    const std::vector<std::string> sections = {"default", "odd section", "added", "empty section"};
    EXPECT_EQ(AllEntries(ini, sections), AllEntries(again, sections));
    EXPECT_EQ(ini.SectionCount(), again.SectionCount());

    Write("game.ini", "[video] width=800 [cvars] R_Width=@video|width ");
    const fs::path startFolder = fs::current_path();
    klVarRef width("r_width"), extra("EXTRA");
    CaptureLog log;
    ASSERT_TRUE(Load(ini, "--oconfig [video]width=1280,--dir " + mDir.string() + ",--oconfig\t[cvars]extra=0x10"));
    EXPECT_EQ(Lines({"Running out of [" + fs::current_path().string() + "]",
                     "Command Line Overrides: [video]width=1280", "Command Line Overrides: [cvars]extra=0x10"}),
              log.Lines());
    EXPECT_EQ(1280, width.GetInt());
    EXPECT_EQ(16u, extra.GetUInt());

    testing::internal::CaptureStdout();
    EXPECT_FALSE(Load(ini, "--config --oconfig [video]width=1 --oconfig [Z] --dump-config"));
    EXPECT_EQ("[video]\n  width = 1\n[z]\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ("Skipping ini file", log.Lines().at(4));
    EXPECT_EQ("Exiting after --dump-config.", log.Lines().back());
    EXPECT_FALSE(Load(ini, "--config missing.ini"));
    EXPECT_EQ("Could not load config file at 'missing.ini'", log.Lines().back());
    EXPECT_FALSE(Load(ini, "--config game.ini --oconfig [broken"));
    EXPECT_EQ("Could not parse command line overrides.", log.Lines().back());
    EXPECT_FALSE(ini.Write(Path("no/such/folder/x.ini").c_str()));
    EXPECT_EQ("Unable to write ini file to: '" + Path("no/such/folder/x.ini") + "'", log.Lines().back());
    fs::current_path(startFolder);
}
