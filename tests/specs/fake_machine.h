// A captured Linux machine in a temporary folder of this process's own; Use() points the probes at it.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <unistd.h>

class FakeMachine {
public:
    explicit FakeMachine(const std::string& name)
        : mRoot(std::filesystem::temp_directory_path() / ("rigwarden-" + std::to_string(getpid()) + "-" + name)) {
        std::filesystem::remove_all(mRoot);
        std::filesystem::create_directories(mRoot);
    }
    ~FakeMachine() { std::filesystem::remove_all(mRoot); }

    std::string Root() const { return mRoot.string(); }
    void Use() const { setenv("RIGWARDEN_ROOT", Root().c_str(), 1); }

    void Write(const std::string& relative, const std::string& text) const {
        std::filesystem::path path = mRoot / relative;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << text;
    }

    // One PCI function; cls is the 24-bit class code.
    void AddPci(const std::string& address, unsigned cls, unsigned vendor, unsigned device, bool bootVga = false,
                int enable = -1) const {
        std::string folder = "sys/bus/pci/devices/" + address + "/";
        Write(folder + "class", Hex(cls, 6));
        Write(folder + "vendor", Hex(vendor, 4));
        Write(folder + "device", Hex(device, 4));
        Write(folder + "boot_vga", bootVga ? "1\n" : "0\n");
        if (enable >= 0) Write(folder + "enable", std::to_string(enable) + "\n");
    }

    void AddPciIds() const {
        Write("usr/share/misc/pci.ids",
              "# a small excerpt\n"
              "1002  Advanced Micro Devices, Inc. [AMD/ATI]\n"
              "\t744c  Navi 31 [Radeon RX 7900 XT/7900 XTX]\n"
              "10de  NVIDIA Corporation\n"
              "\t2684  AD102 [GeForce RTX 4090]\n"
              "\t\t1043 889d  ROG Strix\n"
              "\t28e0  AD107M [GeForce RTX 4060 Max-Q / Mobile]\n"
              "8086  Intel Corporation\n"
              "\ta780  Raptor Lake-S GT1 [UHD Graphics 770]\n"
              "\ta7a0  Raptor Lake-P [Iris Xe Graphics]\n"
              "C 03  Display controller\n"
              "\t00  VGA compatible controller\n");
    }

private:
    static std::string Hex(unsigned value, int digits) {
        char text[16];
        std::snprintf(text, sizeof(text), "0x%0*x\n", digits, value);
        return text;
    }
    std::filesystem::path mRoot;
};
