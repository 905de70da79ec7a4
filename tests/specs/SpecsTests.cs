// The managed classes on a real runtime, against captured machines written to a scratch
// folder that RIGWARDEN_ROOT points the native probes at.
using System;
using System.IO;
using System.Runtime.InteropServices;
using System.Threading;
using Rigwarden;

static class SpecsTests
{
    static int passed, failed;

    static void Check(bool condition, string what)
    {
        if (condition) { ++passed; return; }
        ++failed;
        Console.WriteLine("FAILED: " + what);
    }

    [DllImport("libc")]
    static extern int setenv(string name, string value, int overwrite);

    // A machine folder: the files the Linux probes read, and a database folder "db".
    static string MakeMachine(string name, bool withGpus)
    {
        string root = Path.Combine(Path.GetTempPath(), "rigwarden-managed-" + name);
        if (Directory.Exists(root)) Directory.Delete(root, true);
        Write(root, "proc/meminfo", "MemTotal:       16777216 kB\n");
        Write(root, "proc/cpuinfo", withGpus ? "model name\t: CPU @ 3.40GHz\n" : "");
        Write(root, "sys/devices/system/cpu/online", "0-7\n");
        Write(root, "usr/share/misc/pci.ids", "10de  NVIDIA Corporation\n\t2684  AD102 [GeForce RTX 4090]\n" +
                                               "8086  Intel Corporation\n\ta780  UHD Graphics 770\n");
        if (withGpus)
        {
            Pci(root, "0000:00:02.0", "0x030000", "0x8086", "0xa780", true);
            Pci(root, "0000:01:00.0", "0x030000", "0x10de", "0x2684", false);
        }
        Write(root, "db/gpus.cfg", "; test database\n10DE, 2684, 4, 3840, 9800, D ; RTX 4090\n");
        setenv("RIGWARDEN_ROOT", root, 1);
        return root;
    }

    static void Pci(string root, string address, string cls, string vendor, string device, bool boot)
    {
        string folder = "sys/bus/pci/devices/" + address + "/";
        Write(root, folder + "class", cls + "\n");
        Write(root, folder + "vendor", vendor + "\n");
        Write(root, folder + "device", device + "\n");
        Write(root, folder + "subsystem_vendor", "0x1043\n");
        Write(root, folder + "subsystem_device", "0x8a2c\n");
        Write(root, folder + "revision", "0xa1\n");
        Write(root, folder + "boot_vga", boot ? "1\n" : "0\n");
    }

    static void Write(string root, string relative, string text)
    {
        string path = Path.Combine(root, relative);
        Directory.CreateDirectory(Path.GetDirectoryName(path));
        File.WriteAllText(path, text);
    }

    static void Defaults()
    {
        var gpu = new GpuInfo("name", 1, 2);
        Check(gpu.AdapterName == "name" && gpu.VendorId == 1 && gpu.DeviceId == 2, "GpuInfo keeps its arguments");
        Check(gpu.NotListed && gpu.NotListedInfo == null && gpu.RecommendedVideoQuality == 0 &&
              gpu.RecommendedWidth == 0 && gpu.Benchmark == 0 && !gpu.Mobile, "GpuInfo defaults");
        var info = new SpecInfo();
        Check(!info.IsError && info.ErrorMessage == null && !info.IsUnderMinSpec && info.UnderMinSpecReason == null &&
              info.GpuInfo == null && info.BestGpuIndex == 0, "SpecInfo defaults");
        Check(new Specs() != null, "Specs can be made");
        string[] order = { "AdapterName", "VendorId", "DeviceId", "NotListed", "NotListedInfo",
                           "RecommendedVideoQuality", "RecommendedWidth", "Benchmark", "Mobile" };
        var fields = typeof(GpuInfo).GetFields();
        bool inOrder = fields.Length == order.Length;
        for (int i = 0; inOrder && i < order.Length; ++i) inOrder = fields[i].Name == order[i];
        Check(inOrder, "GpuInfo fields in the launcher's order");
    }

    static void KnownMachine()
    {
        string root = MakeMachine("known", true);
        SpecInfo info = Specs.GetSpecInfo(Path.Combine(root, "db"));
        Check(!info.IsError && info.ErrorMessage == "", "no probe error");
        Check(info.GpuInfo.Length == 2, "two adapters");
        if (info.GpuInfo.Length != 2) return;
        GpuInfo intel = info.GpuInfo[0], nvidia = info.GpuInfo[1];
        Check(intel.AdapterName == "Intel Corporation UHD Graphics 770" && intel.VendorId == 0x8086 &&
              intel.DeviceId == 0xA780, "the boot display comes first");
        Check(intel.NotListed && intel.NotListedInfo.StartsWith("Could not find graphics adapter (0x8086, 0xA780, Intel"),
              "unlisted adapter explained");
        Check(!nvidia.NotListed && nvidia.NotListedInfo == "" && nvidia.RecommendedVideoQuality == 4 &&
              nvidia.RecommendedWidth == 3840 && nvidia.Benchmark == 9800 && !nvidia.Mobile, "database values");
        Check(info.BestGpuIndex == 1, "the faster card is best");
        Check(!info.IsUnderMinSpec && info.UnderMinSpecReason == "", "meets the minimum: " + info.UnderMinSpecReason);

        // Linux lists every display device already: asking for all of them changes nothing.
        SpecInfo all = Specs.GetSpecInfo(Path.Combine(root, "db"), SpecQuery.AllAdapters);
        Check(all.GpuInfo.Length == 2 && all.GpuInfo[0].AdapterName == intel.AdapterName &&
              all.GpuInfo[1].Benchmark == 9800 && all.BestGpuIndex == 1, "all adapters: the same answer");
        Check((uint)SpecQuery.AllAdapters == 1 && (uint)SpecQuery.Default == 0, "query values are the C flags");
    }

    static void EmptyMachine()
    {
        string root = MakeMachine("empty", false);
        SpecInfo info = Specs.GetSpecInfo(Path.Combine(root, "db"));
        Check(info.GpuInfo != null && info.GpuInfo.Length == 0 && info.BestGpuIndex == 0, "empty adapter array");
        Check(info.IsError && info.ErrorMessage == "Failed to detect CPU core speed from the system registry.\n",
              "processor failure reported: " + info.ErrorMessage);
        Check(info.IsUnderMinSpec && info.UnderMinSpecReason.Contains(
                  "No graphics adapter detected in your system. This game requires accelerated 3D graphics to function correctly.\n"),
              "missing adapter reason");
    }

    static void NoDatabase()
    {
        MakeMachine("nodb", true);
        foreach (string folder in new string[] { null, "", "/no/such/folder" })
        {
            SpecInfo info = Specs.GetSpecInfo(folder);
            bool allUnlisted = info.GpuInfo.Length == 2;
            foreach (GpuInfo gpu in info.GpuInfo)
                allUnlisted &= gpu.NotListed && gpu.NotListedInfo != "" && gpu.AdapterName != null;
            Check(info.ErrorMessage != null && info.UnderMinSpecReason != null && allUnlisted,
                  "folder '" + folder + "' gives a whole answer");
        }
    }

    static long ResidentBytes()
    {
        string[] fields = File.ReadAllText("/proc/self/statm").Split(' ');
        return long.Parse(fields[1]) * 4096;
    }

    // Every native answer is freed: many queries, also from several threads at once, leave
    // the process no bigger than a few pages of noise.
    static void NoLeaks()
    {
        string db = Path.Combine(MakeMachine("leaks", true), "db");
        for (int i = 0; i < 500; ++i) Specs.GetSpecInfo(db);
        GC.Collect();
        long before = ResidentBytes();
        var threads = new Thread[4];
        bool same = true;
        for (int t = 0; t < threads.Length; ++t)
        {
            threads[t] = new Thread(() => {
                for (int i = 0; i < 2500; ++i)
                    if (Specs.GetSpecInfo(db).BestGpuIndex != 1) same = false;
            });
            threads[t].Start();
        }
        foreach (Thread thread in threads) thread.Join();
        GC.Collect();
        GC.WaitForPendingFinalizers();
        long grown = ResidentBytes() - before;
        Check(same, "every threaded answer agrees");
        Check(grown < 4 << 20, "10000 queries grew the process by " + grown + " bytes");
    }

    static int Main()
    {
        Defaults();
        KnownMachine();
        EmptyMachine();
        NoDatabase();
        NoLeaks();
        Console.WriteLine(passed + " passed, " + failed + " failed");
        return failed == 0 ? 0 : 1;
    }
}
