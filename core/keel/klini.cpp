#include "keel/klini.h"

#include "keel/klbuffer.h"
#include "keel/klconsole.h"
#include "keel/klfilesystem.h"
#include "keel/kllog.h"
#include "keel/klplatform.h"
#include "keel/klsystem.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// Nested includes beyond this depth are taken for a cycle that hides behind different
// spellings of one path, so that no configuration can exhaust the stack.
constexpr size_t kMaxIncludeDepth = 32;

klLogger& Log() { return klConsoleLogger(); }

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
using klFileSystem::IsPathSeparator;

bool SamePath(const klString& a, const klString& b) {
    return kl::platform::StrICmp(klFileSystem::CanonicalPath(a), klFileSystem::CanonicalPath(b)) == 0;
}

// Whether Write must quote a value for the parser to read it back unchanged.
bool NeedsQuotes(const klString& value) {
    if (value.IsEmpty() || value.Const()[0] == '"' || value.Const()[0] == '\'') return true;
    for (const char* p = value.Const(); *p; ++p)
        if (IsSpace(*p) || *p == '[' || *p == ';') return true;
    return false;
}

} // namespace

// ---------------------------------------------------------------------------------------
// The grammar: one pass over the text with one character of look-ahead.

class klIni::Parser {
public:
    Parser(klIni& ini, const char* text)
        : mIni(ini), mAt(text), mSectionName("default"), mSection(nullptr) {}

    bool Run() {
        for (;;) {
            while (IsSpace(*mAt)) ++mAt;
            bool ok = true;
            switch (*mAt) {
            case 0: return true;
            case ';': SkipLine(); break;
            case '[': ok = SectionHeader(); break;
            case '.': ok = Instruction(); break;
            default: ok = Entry(); break;
            }
            if (!ok) return false;
        }
    }

private:
    void SkipLine() {
        while (*mAt && *mAt != '\n') ++mAt;
    }

    // Takes characters up to (not including) the first for which stop() holds, or the end
    // of the text. A token longer than kMaxToken is reported with tooLong and refused.
    template <class Stop> bool Collect(Stop stop, const char* tooLong, klString* out) {
        const char* start = mAt;
        while (*mAt && !stop(*mAt)) ++mAt;
        if (static_cast<size_t>(mAt - start) > kMaxToken) {
            Log().Error(tooLong, kMaxToken + 1);
            return false;
        }
        out->Copy(start, static_cast<uint32_t>(mAt - start));
        return true;
    }

    bool SectionHeader() {
        ++mAt;
        klString name;
        if (!Collect([](char c) { return c == ']' || c == '\n'; },
                     "Section name exceeded %u characters", &name))
            return false;
        if (*mAt != ']') {
            Log().Error("Premature end for section starting with \"%s\"", name.Const());
            return false;
        }
        ++mAt;
        mSectionName = std::move(name);
        mSection = &mIni.mSections[mSectionName]; // a header alone creates the section
        return true;
    }

    bool Instruction() {
        ++mAt;
        klString line;
        if (!Collect([](char c) { return c == '\n'; }, "Instruction exceeded %u characters", &line))
            return false;
        line = line.Trim(); // a CRLF file leaves its '\r' here
        struct Verb {
            const char* prefix;
            bool (*run)(klIni&, const klString&);
        };
        static const Verb verbs[] = {
            {"include-all ", [](klIni& ini, const klString& arg) {
                 return ini.IncludeAll(ini.ResolveIncludePath(arg));
             }},
            {"include? ", [](klIni& ini, const klString& arg) {
                 const klString path = ini.ResolveIncludePath(arg);
                 return !klFileSystem::FileExists(path) || ini.IncludeResolved(path);
             }},
            {"include ", [](klIni& ini, const klString& arg) {
                 return ini.IncludeResolved(ini.ResolveIncludePath(arg));
             }},
        };
        for (const Verb& verb : verbs) {
            const uint32_t length = static_cast<uint32_t>(std::strlen(verb.prefix));
            if (std::strncmp(line.Const(), verb.prefix, length) != 0) continue;
            klString argument;
            return Argument(line.Const() + length, &argument) && verb.run(mIni, argument);
        }
        Log().Error("Did not understand INI processor instruction '%s'", line.Const());
        return false;
    }

    // An instruction's argument: the rest of the line, or the text between double quotes.
    static bool Argument(const char* text, klString* out) {
        while (*text == ' ' || *text == '\t') ++text;
        if (*text != '"') {
            *out = klString(text).Trim();
            return true;
        }
        const char* end = std::strchr(text + 1, '"');
        if (!end) {
            Log().Error("Instruction end-quote was not found");
            return false;
        }
        out->Copy(text + 1, static_cast<uint32_t>(end - text - 1));
        return true;
    }

    bool Entry() {
        klString key;
        if (!Collect([](char c) { return c == '=' || IsSpace(c); }, "Key name exceeded %u characters",
                     &key))
            return false;
        while (IsSpace(*mAt)) ++mAt;
        if (*mAt != '=') return Store(klString(), std::move(key));
        ++mAt;
        while (IsSpace(*mAt)) ++mAt;
        klString value;
        const bool ok = (*mAt == '"' || *mAt == '\'')
                            ? Quoted(key, &value)
                            : Collect([](char c) { return c == '[' || c == ';' || IsSpace(c); },
                                      "Value exceeded %u characters", &value);
        return ok && Store(std::move(key), std::move(value));
    }

    // A quoted value; the quote character written twice stands for itself.
    bool Quoted(const klString& key, klString* out) {
        const char quote = *mAt++;
        klString value;
        for (;;) {
            const char* start = mAt;
            while (*mAt && *mAt != quote) ++mAt;
            value.Append(start, static_cast<uint32_t>(mAt - start));
            if (value.Size() > kMaxToken) {
                Log().Error("Value exceeded %u characters", kMaxToken + 1);
                return false;
            }
            if (!*mAt) {
                Log().Error("Improper end to quoted value for key \"%s/%s\"", mSectionName.Const(),
                            key.Const());
                return false;
            }
            ++mAt;
            if (*mAt != quote) break;
            value.Append(&quote, 1);
            ++mAt;
        }
        *out = value;
        return true;
    }

    // An empty key makes the value a list entry, numbered by the section's size.
    bool Store(klString key, klString value) {
        if (!mSection) mSection = &mIni.mSections[mSectionName];
        if (key.IsEmpty()) key = klpf("%lu", static_cast<unsigned long>(mSection->size()));
        auto [entry, inserted] = mSection->try_emplace(klLCaseString(std::move(key)), std::move(value));
        if (!inserted) entry->second = std::move(value); // try_emplace left it alone
        return true;
    }

    klIni& mIni;
    const char* mAt;
    klLCaseString mSectionName;
    Section* mSection; // the entry of mSectionName, found once per header
};

// ---------------------------------------------------------------------------------------

klIni::~klIni() { klAssert(mReferenceDepth == 0); }

bool klIni::Parse(const char* text) { return Parser(*this, text ? text : "").Run(); }

bool klIni::ParseFile(const klString& fileName, const char* text) {
    bool cycle = mIncludeStack.size() >= kMaxIncludeDepth;
    for (const klString& open : mIncludeStack) cycle = cycle || SamePath(open, fileName);
    if (cycle) {
        Log().Error("Recursively included '%s'. Stack follows:", fileName.Const());
        for (const klString& open : mIncludeStack) Log().Error("  %s", open.Const());
        return false;
    }
    mIncludeStack.push_back(fileName);
    const bool ok = Parse(text);
    mIncludeStack.pop_back();
    return ok;
}

klString klIni::ResolveIncludePath(const char* name) const {
    while (name[0] == '.' && IsPathSeparator(name[1])) name += 2;
    if (mIncludeStack.empty() || IsPathSeparator(name[0]) || std::strchr(name, ':')) return name;
    // CombinePath gives name alone when the including file has no folder.
    return klFileSystem::CombinePath(klFileSystem::FolderOf(mIncludeStack.back()), name);
}

bool klIni::Include(const char* fileName) {
    return IncludeResolved(ResolveIncludePath(fileName ? fileName : ""));
}

bool klIni::IncludeResolved(const klString& path) {
    klIni included;
    included.mIncludeStack = mIncludeStack;
    klBlob text;
    if (!klFileSystem::LoadZ(path, text)) {
        Log().Error("Could not load included config file at '%s'", path.Const());
        return false;
    }
    const char* chars = text.Size() ? reinterpret_cast<const char*>(text.ConstPtr(0)) : "";
    if (!included.ParseFile(path, chars)) {
        Log().Error("Could not parse included config file at '%s'", path.Const());
        return false;
    }
    MergeFrom(included);
    return true;
}

// The files go in name order: what Windows gives for NTFS folders, and on Linux a fixed
// order instead of readdir's, so that later files reliably override earlier ones.
bool klIni::IncludeAll(const klString& folderArgument) {
    // "conf.d/" names the same folder as "conf.d"; the search that proves a folder exists
    // looks for an entry named by the path, which a trailing separator hides.
    uint32_t length = folderArgument.Size();
    while (length > 1 && klFileSystem::IsPathSeparator(folderArgument.Const()[length - 1])) --length;
    const klString folder = folderArgument.SubString(0, length);
    if (!klFileSystem::FileExists(folder)) {
        Log().Error(".include-all '%s': directory does not exist", folder.Const());
        return false;
    }
    std::vector<klString> files;
    klFileSystem::DirectoryContents(folder, "*.ini", files);
    std::sort(files.begin(), files.end(), [](const klString& a, const klString& b) {
        return kl::platform::StrICmp(a, b) < 0;
    });
    for (const klString& file : files)
        if (!IncludeResolved(klFileSystem::CombinePath(folder, file))) return false;
    return true;
}

void klIni::MergeFrom(const klIni& other) {
    for (const auto& [name, section] : other.mSections) {
        Section& mine = mSections[name];
        for (const auto& [key, value] : section) mine.insert_or_assign(key, value);
    }
}

// ---------------------------------------------------------------------------------------
// Lookups

const char* klIni::GetRawValue(const char* section, const char* key) const {
    if (!klAssertAs(section != nullptr, "s != NULL") || !key) return nullptr;
    const auto found = mSections.find(klLCaseString(section));
    if (found == mSections.end()) return nullptr;
    const auto entry = found->second.find(klLCaseString(key));
    return entry == found->second.end() ? nullptr : entry->second.Const();
}

const char* klIni::GetValue(const char* section, const char* key) {
    const char* raw = GetRawValue(section, key);
    return raw ? Resolve(section, key, raw) : nullptr;
}

// "$NAME" reads the environment; "@key", "@section|key" and "@(section)key" follow a
// reference, whose value is resolved in turn, to kMaxReferenceDepth levels.
const char* klIni::Resolve(const char* section, const char* key, const char* value) {
    if (!klAssertAs(value != nullptr, "val != NULL")) return nullptr;
    const char mark = value[0];
    if (mark != '$' && mark != '@') return value;
    if (value[1] == mark) return value + 1; // "$$" and "@@" escape the mark
    if (mark == '$') return std::getenv(value + 1);
    if (mReferenceDepth >= kMaxReferenceDepth) {
        Log().Error("INI recursion too deep. Involving \"[%s]%s\"", section, key);
        return nullptr;
    }
    klString pieces[3];
    uint32_t count = 0;
    for (const char* p = value + 1; *p && count < 3; ++p) {
        if (std::strchr("(|)", *p)) {
            if (!pieces[count].IsEmpty()) ++count;
            continue;
        }
        pieces[count].Append(p, 1);
    }
    if (count < 3 && !pieces[count].IsEmpty()) ++count;
    if (count == 0 || count > 2) {
        Log().Error("Malformed INI reference '%s' in \"[%s]%s\"", value, section, key);
        return nullptr;
    }
    ++mReferenceDepth;
    const char* resolved =
        count == 1 ? GetValue(section, pieces[0]) : GetValue(pieces[0], pieces[1]);
    --mReferenceDepth;
    return resolved;
}

bool klIni::SetValue(const char* section, const char* key, const char* value) {
    if (!section || !key || !value || !*key || std::strchr(";[.", key[0])) return false;
    for (const char* p = key; *p; ++p)
        if (IsSpace(*p) || *p == '=') return false;
    if (std::strpbrk(section, "]\n")) return false;
    mSections[klLCaseString(section)][klLCaseString(key)] = value;
    return true;
}

// ---------------------------------------------------------------------------------------
// Output

void klIni::Dump() const {
    for (const auto& [name, section] : mSections) {
        std::printf("[%s]\n", name.Const());
        for (const auto& [key, value] : section) std::printf("  %s = %s\n", key.Const(), value.Const());
    }
    std::fflush(stdout);
}

bool klIni::Write(const char* fileName) const {
    klString text;
    for (const auto& [name, section] : mSections) {
        text.AppendFormat("[%s]\n", name.Const());
        for (const auto& [key, value] : section) {
            klString written = value;
            if (NeedsQuotes(value)) {
                written.Replace("\"", "\"\"", true);
                written = klpf("\"%s\"", written.Const());
            }
            text.AppendFormat("%s = %s\n", key.Const(), written.Const());
        }
    }
    FILE* file = fileName ? klFileSystem::Open(fileName, "wb") : nullptr;
    bool ok = file && std::fwrite(text.Const(), 1, text.Size(), file) == text.Size();
    ok = file && std::fflush(file) == 0 && ok;
    if (file) ok = klFileSystem::Close(file) == 0 && ok;
    if (!ok) Log().Error("Unable to write ini file to: '%s'", fileName ? fileName : "");
    return ok;
}

// ---------------------------------------------------------------------------------------
// Start-up

namespace {

bool ChangeWorkingFolder() {
    const klCommandOption* dir = klFindOption("dir");
    if (!dir || dir->value.IsEmpty()) return true;
    if (klFileSystem::SetCurrentDir(dir->value)) return true;
    Log().Error("Could not change the working directory to '%s'", dir->value.Const());
    return false;
}

} // namespace

bool klIni::Load(const char* defaultFile) {
    if (!ChangeWorkingFolder()) return false;
    klString workingFolder;
    if (klFileSystem::GetCurrentDir(&workingFolder))
        Log().Info("Running out of [%s]", workingFolder.Const());
    else
        Log().Warn("Could not determine working directory.");

    const klCommandOption* config = klFindOption("config");
    const klString fileName = config ? config->value : klString(defaultFile ? defaultFile : "");
    Clear();
    mFileName.clear();
    if (fileName.IsEmpty()) {
        Log().Warn("Skipping ini file");
    } else {
        klBlob text;
        if (!klFileSystem::LoadZ(fileName, text)) {
            Log().Error("Could not load config file at '%s'", fileName.Const());
            return false;
        }
        mFileName = fileName;
        const char* chars = text.Size() ? reinterpret_cast<const char*>(text.ConstPtr(0)) : "";
        if (!ParseFile(fileName, chars)) {
            Log().Error("Could not parse config file at '%s'", fileName.Const());
            return false;
        }
    }

    std::vector<klString> overrides;
    klOptionValues("oconfig", overrides);
    for (const klString& text : overrides) {
        if (!klAssertAs(!text.IsEmpty(), "cfgArg != NULL")) continue;
        Log().Info("Command Line Overrides: %s", text.Const());
        if (!Parse(text)) {
            Log().Error("Could not parse command line overrides.");
            return false;
        }
    }
    ApplyCvars();
    if (klFindOption("dump-config")) {
        Dump();
        Log().Notice("Exiting after --dump-config.");
        return false;
    }
    return true;
}

// Every key of the section "cvars" sets the console variable of that name.
void klIni::ApplyCvars() {
    bool warned = false;
    ForEachKey("cvars", [&](const char* key, const char*) {
        const char* value = GetValue("cvars", key);
        if (klSetCvar(key, value ? value : "") || warned) return;
        warned = true;
        Log().Warn("Console variables are not running: section [cvars] was not applied");
    });
}
