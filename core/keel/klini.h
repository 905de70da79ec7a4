// klIni: the process's configuration. Named sections of text key/value pairs, read from
// INI files (with include instructions), overridden from the command line, looked up with
// environment and cross-key references, and dumped or written back.
//
// The file format, in short:
//   ; comment to the end of the line
//   [Section Name]            names are case-insensitive; entries before any header go
//                             to the section "default"
//   key = value               tokens are separated by whitespace, lines mean nothing;
//   key='quoted ''value'''    quotes (single or double) are doubled to stand for themselves;
//   word                      a key without "=" is a list entry numbered 0, 1, 2, ...
//   .include other.ini        read another file and merge it in (it overrides what came
//   .include? optional.ini    before it); "include?" skips a file that does not exist;
//   .include-all conf.d       "include-all" merges every *.ini file of a folder
// A relative include name is taken from the folder of the file that names it (from the
// working folder for text that came from no file, such as command-line overrides), so a
// configuration tree can be moved as a whole.
//
// Values starting with "$" read an environment variable, values starting with "@" refer
// to another key ("@key", "@section|key" or "@(section)key"); both are resolved at lookup.
// "$$" and "@@" stand for a value that really begins with one "$" or "@".
//
// A klIni is used by one thread at a time: a lookup keeps its reference depth in the object.
#pragma once

#include "keel/klmap.h"
#include "keel/klstring.h"

#include <cstdint>
#include <vector>

class klIni {
public:
    // Longest section name, key, value or instruction; a longer one fails the parse.
    static constexpr uint32_t kMaxToken = 1023;
    // Reference levels a lookup follows before it gives up on a cycle.
    static constexpr int32_t kMaxReferenceDepth = 8;

    klIni() = default;
    // Destroying the configuration while one of its lookups runs asserts.
    ~klIni();
    klIni(const klIni&) = delete;
    klIni& operator=(const klIni&) = delete;

    // The start-up entry. Honours the command-line options --dir (change the working
    // folder first), --config (a file other than defaultFile; "" skips the file),
    // --oconfig (INI text parsed over the file, in order; may repeat) and --dump-config
    // (print the result and stop). Afterwards every key of the section "cvars" sets the
    // console variable of that name, when the console runs. False when the host should
    // not go on: a load or parse failure, or after a dump.
    bool Load(const char* defaultFile);
    // Parses INI text (zero-terminated) into this configuration; entries go to "default"
    // until a header names another section. False at the first error, which is logged;
    // what was read before the error stays.
    bool Parse(const char* text);
    // Merges the named INI file in, as the ".include" instruction does.
    bool Include(const char* fileName);

    // The value of key in section, resolved ("$" and "@"); null when there is none.
    // The text lives until the configuration changes.
    const char* GetValue(const char* section, const char* key);
    // Stores a raw value (not resolved). False for names the file format could not read
    // back: an empty key, or one holding whitespace or "=" or starting with ";", "[" or
    // "."; a section name holding "]" or a line break.
    bool SetValue(const char* section, const char* key, const char* value);
    // The raw value as stored, without resolving; null when there is none.
    const char* GetRawValue(const char* section, const char* key) const;

    void Clear() { mSections.clear(); }
    // Prints every section and its raw values to standard output.
    void Dump() const;
    // Writes the configuration as an INI file that reads back to the same content.
    bool Write(const char* fileName) const;

    // The file Load read; empty before Load, or when it skipped the file.
    const klString& FileName() const { return mFileName; }
    uint32_t SectionCount() const { return static_cast<uint32_t>(mSections.size()); }
    // Calls visit for every key of section, in name order; false when there is no section.
    template <class Visit> bool ForEachKey(const char* section, Visit visit) const {
        const auto found = mSections.find(klLCaseString(section));
        if (found == mSections.end()) return false;
        for (const auto& entry : found->second) visit(entry.first.Const(), entry.second.Const());
        return true;
    }

private:
    using Section = klMap<klLCaseString, klString, klLCaseStringLessThan>;
    using SectionMap = klMap<klLCaseString, Section, klLCaseStringLessThan>;
    class Parser;

    // Parses text read from fileName, refusing a file that is already being read.
    bool ParseFile(const klString& fileName, const char* text);
    // Include of a path that is already resolved.
    bool IncludeResolved(const klString& path);
    bool IncludeAll(const klString& folder);
    // A relative path taken from the folder of the file being parsed.
    klString ResolveIncludePath(const char* name) const;
    void MergeFrom(const klIni& other);
    void ApplyCvars();
    const char* Resolve(const char* section, const char* key, const char* value);

    klString mFileName;
    SectionMap mSections;
    std::vector<klString> mIncludeStack; // the files being read, outermost first
    int32_t mReferenceDepth = 0;

    friend class Parser;
};
