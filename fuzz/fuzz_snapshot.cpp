// Feeds arbitrary bytes to the snapshot check as rigwarden.json: a manifest naming files not there is refused.
#include "oRigwardenSnapshot.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string folder =
        (std::filesystem::temp_directory_path() / ("rigwarden-fuzz-snapshot-" + std::to_string(getpid()))).string();
    std::filesystem::create_directories(folder);
    std::ofstream(folder + "/rigwarden.json", std::ios::binary).write(reinterpret_cast<const char*>(data), size);
    klString error;
    oRigwardenSnapshot::Status status = oRigwardenSnapshot::Check(folder.c_str(), "0.1.0", error);
    // The folder holds the manifest alone, so only an empty file list can be usable.
    std::string text(reinterpret_cast<const char*>(data), size);
    if (status == oRigwardenSnapshot::kUsable && text.find("  \"Files\": {\n  },\n") == std::string::npos)
        __builtin_trap();
    if ((status == oRigwardenSnapshot::kUnusable) == error.IsEmpty()) __builtin_trap();
    return 0;
}
