// The managed classes on a real runtime, against a captured machine that RIGWARDEN_ROOT points the
// native probes at. Each case throws on its first failed check; Mono and xunit runners run them.
using System;
using System.IO;
using System.Linq;
using System.Runtime.InteropServices;
using Rigwarden;

public static class SpecsCases
{
    static void Expect(bool condition, string what)
    {
        if (!condition) throw new Exception("FAILED: " + what);
    }

    [DllImport("libc")]
    static extern int setenv(string name, string value, int overwrite);

    // The process id keeps the Mono and the .NET runs apart when ctest runs them side by side.
    static readonly string Machines = Path.Combine(Path.GetTempPath(),
        "rigwarden-managed-" + System.Diagnostics.Process.GetCurrentProcess().Id);

    public static void RemoveMachines()
    {
        if (Directory.Exists(Machines)) Directory.Delete(Machines, true);
    }

    // A machine for the Linux probes, its files as "path=text": a processor without a clock,
    // two display adapters (the Intel one drives the display); returns its database folder.
    static string MakeMachine(string name)
    {
        string root = Path.Combine(Machines, name), pci = "sys/bus/pci/devices/0000:0";
        string[] files = { "proc/meminfo=MemTotal:       16777216 kB", "sys/devices/system/cpu/online=0-7",
                           "proc/cpuinfo=model name\t: CPU", "db/gpus.cfg=10DE, 2684, 4, 3840, 9800, M",
                           pci + "0:02.0/class=0x030000", pci + "0:02.0/vendor=0x8086", pci + "0:02.0/device=0xa780",
                           pci + "0:02.0/boot_vga=1", pci + "1:00.0/class=0x030000", pci + "1:00.0/vendor=0x10de",
                           pci + "1:00.0/device=0x2684", pci + "1:00.0/boot_vga=0" };
        foreach (string file in files)
        {
            string path = Path.Combine(root, file.Substring(0, file.IndexOf('=')));
            Directory.CreateDirectory(Path.GetDirectoryName(path));
            File.WriteAllText(path, file.Substring(file.IndexOf('=') + 1) + "\n");
        }
        setenv("RIGWARDEN_ROOT", root, 1);
        return Path.Combine(root, "db");
    }

    public static void KnownMachine()
    {
        string db = MakeMachine("known");
        Expect((uint)SpecQuery.AllAdapters == 1, "the query flag is the C one");
        // Linux lists every display device already: asking for all of them changes nothing.
        foreach (SpecInfo info in new[] { Specs.GetSpecInfo(db), Specs.GetSpecInfo(db, SpecQuery.AllAdapters) })
        {
            Expect(info.IsError && info.ErrorMessage == "Failed to detect CPU core speed from the system registry.\n" &&
                   info.IsUnderMinSpec && info.UnderMinSpecReason.StartsWith("CPU is under minimal hardware specs. " +
                   "Found: 8 cores @0MHz).") && info.GpuInfo.Length == 2 && info.BestGpuIndex == 1,
                   "the verdict: " + info.ErrorMessage + info.UnderMinSpecReason);
            GpuInfo intel = info.GpuInfo[0], nvidia = info.GpuInfo[1];
            Expect(intel.AdapterName == "Display adapter [8086:a780]" && intel.VendorId == 0x8086 &&
                   intel.DeviceId == 0xA780 && intel.NotListed && !intel.Mobile &&
                   intel.NotListedInfo.StartsWith("Could not find graphics adapter (0x8086, 0xA780, Display"),
                   "the boot display first, unlisted");
            Expect(!nvidia.NotListed && nvidia.NotListedInfo == "" && nvidia.RecommendedVideoQuality == 4 &&
                   nvidia.RecommendedWidth == 3840 && nvidia.Benchmark == 9800 && nvidia.Mobile, "database values");
        }
        // Without a database (none named, or none there) every adapter is unlisted.
        foreach (SpecInfo info in new[] { Specs.GetSpecInfo(null), Specs.GetSpecInfo(null, SpecQuery.Default),
                                          Specs.GetSpecInfo("/no/such/folder") })
            Expect(info.GpuInfo.Length == 2 && info.GpuInfo.All(gpu => gpu.NotListed && gpu.NotListedInfo != ""),
                   "no database");
    }
}
