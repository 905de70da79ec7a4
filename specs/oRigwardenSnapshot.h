// Snapshots of a machine: a folder that holds what the probes learned on one machine, so
// that the same query can be answered later, elsewhere, exactly as it was answered there.
//
// Linux: the probe files below the root, each cut down to the parts the probes look at
// (only display-class PCI devices, only the lines of cpuinfo, meminfo and pci.ids that are
// used). Windows: windows-machine.txt, the answers of the platform calls. Both: the
// manifest rigwarden.json with the capturing tool's version, the platform, the capture
// time, a digest of every file and the answer given on the machine.
#pragma once

#include "keel/klstring.h"

#include <vector>

// One file of a snapshot: its path below the snapshot folder ('/'-separated) and bytes.
struct vsSnapshotFile {
    klString path;
    klString text;
};

class oRigwardenSnapshot {
public:
    // The manifest's name inside a snapshot folder.
    static const char* const kManifestName;

    // Starts keeping, on the calling thread, what the probes read (Linux; nothing to do on
    // Windows, whose calls are asked again at the end).
    static void BeginCapture();
    // Ends the capture and returns the machine's files.
    static std::vector<vsSnapshotFile> EndCapture();

    // Writes files and the manifest into folder, which must be absent or empty. answerJson
    // is the answer given on the machine, as JSON. False, with the reason in error, when the
    // folder is taken or a file cannot be written.
    static bool Write(const klString& folder, const std::vector<vsSnapshotFile>& files,
                      const char* version, const klString& answerJson, klString& error);

    enum Status {
        kUsable,     // a whole snapshot of this version and platform
        kNoManifest, // no rigwarden.json: a folder made by hand, not a capture
        kUnusable,   // from another version or platform, or damaged; error says which
    };
    // Checks folder's manifest: the version, the platform, every file there with its
    // digest, and no other file beside them.
    static Status Check(const klString& folder, const char* version, klString& error);

    // Makes the probes of this process read the snapshot in folder instead of this machine
    // until StopReplay. False, with the reason in error, when its machine file is unreadable.
    static bool StartReplay(const klString& folder, klString& error);
    static void StopReplay();

    // The platform a snapshot of this build describes: "linux" or "windows".
    static const char* Platform();
};
