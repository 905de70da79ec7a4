// The managed classes on a real runtime, against captured machines written to a scratch
// folder that RIGWARDEN_ROOT points the native probes at. Each case throws on its first
// failed check; Mono's runner (SpecsTests.cs) and the xunit project on .NET both run them.
using System;
using System.Collections.Generic;
using System.IO;
using System.Linq;
using System.Reflection;
using System.Runtime.InteropServices;
using System.Text.RegularExpressions;
using System.Threading;
using Rigwarden;

public static class SpecsCases
{
    static void Expect(bool condition, string what)
    {
        if (!condition) throw new Exception("FAILED: " + what);
    }

    [DllImport("libc")]
    static extern int setenv(string name, string value, int overwrite);

    // Every machine folder of this process; the process id keeps the Mono and the .NET runs
    // apart when ctest runs them side by side.
    static readonly string Machines = Path.Combine(Path.GetTempPath(),
        "rigwarden-managed-" + System.Diagnostics.Process.GetCurrentProcess().Id);

    public static void RemoveMachines()
    {
        if (Directory.Exists(Machines)) Directory.Delete(Machines, true);
    }

    // A machine folder for the Linux probes, with two display adapters (the Intel one drives
    // the display) or none, and a database folder "db", which it returns.
    static string MakeMachine(string name, bool withGpus)
    {
        string root = Path.Combine(Machines, name);
        var files = new Dictionary<string, string> {
            { "proc/meminfo", "MemTotal:       16777216 kB\n" },
            { "proc/cpuinfo", withGpus ? "model name\t: CPU @ 3.40GHz\n" : "" },
            { "sys/devices/system/cpu/online", "0-7\n" },
            { "usr/share/misc/pci.ids", "10de  NVIDIA Corporation\n\t2684  AD102 [GeForce RTX 4090]\n" +
                                        "8086  Intel Corporation\n\ta780  UHD Graphics 770\n" },
            { "db/gpus.cfg", "; test database\n10DE, 2684, 4, 3840, 9800, M ; RTX 4090\n" },
        };
        foreach (string pci in withGpus ? new[] { "00:02.0 8086 a780 1", "01:00.0 10de 2684 0" } : new string[0])
        {
            string[] field = pci.Split(' ');
            string folder = "sys/bus/pci/devices/0000:" + field[0] + "/";
            files[folder + "class"] = "0x030000\n";
            files[folder + "vendor"] = "0x" + field[1] + "\n";
            files[folder + "device"] = "0x" + field[2] + "\n";
            files[folder + "boot_vga"] = field[3] + "\n";
        }
        if (Directory.Exists(root)) Directory.Delete(root, true);
        foreach (var file in files)
        {
            string path = Path.Combine(root, file.Key);
            Directory.CreateDirectory(Path.GetDirectoryName(path));
            File.WriteAllText(path, file.Value);
        }
        setenv("RIGWARDEN_ROOT", root, 1);
        return Path.Combine(root, "db");
    }

    public static void Defaults()
    {
        var gpu = new GpuInfo("name", 1, 2);
        Expect(gpu.AdapterName == "name" && gpu.VendorId == 1 && gpu.DeviceId == 2 && gpu.NotListed &&
               gpu.NotListedInfo == null && gpu.RecommendedVideoQuality == 0 && gpu.RecommendedWidth == 0 &&
               gpu.Benchmark == 0 && !gpu.Mobile, "GpuInfo defaults");
        string[] order = { "AdapterName", "VendorId", "DeviceId", "NotListed", "NotListedInfo",
                           "RecommendedVideoQuality", "RecommendedWidth", "Benchmark", "Mobile" };
        Expect(typeof(GpuInfo).GetFields().Select(f => f.Name).SequenceEqual(order), "GpuInfo fields in the launcher's order");
        Expect((uint)SpecQuery.AllAdapters == 1 && (uint)SpecQuery.Default == 0, "query values are the C flags");
    }

    public static void KnownMachine()
    {
        string db = MakeMachine("known", true);
        // Linux lists every display device already: asking for all of them changes nothing.
        foreach (SpecInfo info in new[] { Specs.GetSpecInfo(db), Specs.GetSpecInfo(db, SpecQuery.AllAdapters) })
        {
            Expect(!info.IsError && info.ErrorMessage == "" && !info.IsUnderMinSpec && info.UnderMinSpecReason == "" &&
                   info.GpuInfo.Length == 2 && info.BestGpuIndex == 1, "the verdict: " + info.UnderMinSpecReason);
            GpuInfo intel = info.GpuInfo[0], nvidia = info.GpuInfo[1];
            Expect(intel.AdapterName == "Intel Corporation UHD Graphics 770" && intel.VendorId == 0x8086 &&
                   intel.DeviceId == 0xA780 && intel.NotListed && !intel.Mobile &&
                   intel.NotListedInfo.StartsWith("Could not find graphics adapter (0x8086, 0xA780, Intel"),
                   "the boot display first, unlisted");
            Expect(!nvidia.NotListed && nvidia.NotListedInfo == "" && nvidia.RecommendedVideoQuality == 4 &&
                   nvidia.RecommendedWidth == 3840 && nvidia.Benchmark == 9800 && nvidia.Mobile, "database values");
        }
    }

    public static void EmptyMachine()
    {
        SpecInfo info = Specs.GetSpecInfo(MakeMachine("empty", false));
        Expect(info.GpuInfo != null && info.GpuInfo.Length == 0 && info.BestGpuIndex == 0, "empty adapter array");
        Expect(info.IsError && info.ErrorMessage == "Failed to detect CPU core speed from the system registry.\n",
               "processor failure reported: " + info.ErrorMessage);
        Expect(info.IsUnderMinSpec && info.UnderMinSpecReason.Contains("No graphics adapter detected in your system. " +
                   "This game requires accelerated 3D graphics to function correctly.\n"), "missing adapter reason");
    }

    public static void NoDatabase()
    {
        MakeMachine("nodb", true);
        foreach (string folder in new string[] { null, "", "/no/such/folder" })
            foreach (SpecInfo info in new[] { Specs.GetSpecInfo(folder), Specs.GetSpecInfo(folder, SpecQuery.Default) })
                Expect(info.ErrorMessage != null && info.UnderMinSpecReason != null && info.GpuInfo.Length == 2 &&
                           info.GpuInfo.All(gpu => gpu.NotListed && gpu.NotListedInfo != "" && gpu.AdapterName != null),
                       "folder '" + folder + "' gives a whole answer");
    }

    // The default database that travels with the assembly (the package's content files
    // land beside it in a consumer's output) knows the machine's discrete card.
    public static void BundledDatabase()
    {
        MakeMachine("bundled", true);
        string folder = Path.Combine(Path.GetDirectoryName(typeof(Specs).Assembly.Location), "gpudb");
        Expect(Directory.GetFiles(folder, "*.cfg").Length > 1, "database files in " + folder);
        SpecInfo info = Specs.GetSpecInfo(folder);
        Expect(info.GpuInfo.Length == 2 && !info.GpuInfo[1].NotListed && info.GpuInfo[1].RecommendedVideoQuality == 4,
               "the bundled database lists the RTX 4090");
    }

    static long ResidentBytes()
    {
        string[] fields = File.ReadAllText("/proc/self/statm").Split(' ');
        return long.Parse(fields[1]) * 4096;
    }

    // Four threads query at once, all released together, 2500 times each, three times over:
    // every answer is the same, and every native answer is freed. Leaked, each round's 10000
    // answers would take some 4 MB; the runtime's own growth comes in bursts, so of the two
    // rounds after the first, one at least grows by no more than a few pages of noise.
    public static void ConcurrentQueries()
    {
        string db = MakeMachine("threads", true);
        int wrong = 0;
        var resident = new long[3];
        for (int round = 0; round < 3; ++round)
        {
            var start = new Barrier(4);
            Thread[] threads = Enumerable.Range(0, 4).Select(t => new Thread(() => {
                start.SignalAndWait();
                for (int i = 0; i < 2500; ++i)
                    if (Specs.GetSpecInfo(db).GpuInfo[1].Benchmark != 9800) Interlocked.Increment(ref wrong);
            })).ToArray();
            foreach (Thread thread in threads) thread.Start();
            foreach (Thread thread in threads) thread.Join();
            GC.Collect();
            GC.WaitForPendingFinalizers();
            resident[round] = ResidentBytes();
        }
        long grown = Math.Min(resident[1] - resident[0], resident[2] - resident[1]);
        Expect(wrong == 0, wrong + " threaded answers differ");
        Expect(grown < 1 << 20, "10000 queries grew the process by " + grown + " bytes");
    }

    // The marshalling declarations against the table of specs_layout.h (embedded in the
    // test assembly), at both pointer sizes, by laying out the fields with the marshaller's
    // rules: each field at the next multiple of its size, the record rounded up to its
    // largest field. At this process's pointer size the marshaller itself confirms it.
    public static void RecordLayout()
    {
        string table;
        using (var stream = Assembly.GetExecutingAssembly().GetManifestResourceStream("specs_layout.h"))
            table = new StreamReader(stream).ReadToEnd();
        int rows = 0;
        foreach (string record in new[] { "GpuInfo", "SpecInfo" })
        {
            Type type = typeof(Specs).Assembly.GetType("Rigwarden.Native+" + record, true);
            FieldInfo[] fields = type.GetFields();
            string name = record == "GpuInfo" ? "rigwarden_gpu_info" : "rigwarden_spec_info";
            var columns = Regex.Matches(table, @"FIELD\(" + name + @", (\w+), (\d+), (\d+)\)").Cast<Match>().ToList();
            Match size = Regex.Match(table, @"SIZE\(" + name + @", (\d+), (\d+)\)");
            Expect(size.Success && columns.Select(f => f.Groups[1].Value).SequenceEqual(fields.Select(f => f.Name)),
                   name + ": the same fields in the same order");
            foreach (int pointer in new[] { 4, 8 })
            {
                int at = 0, largest = 1, column = pointer / 4 + 1;
                for (int i = 0; i < fields.Length; ++i, ++rows)
                {
                    Type field = fields[i].FieldType;
                    int width = field == typeof(IntPtr) ? pointer : Marshal.SizeOf(field);
                    at = (at + width - 1) / width * width;
                    int expected = int.Parse(columns[i].Groups[column].Value);
                    Expect(at == expected && (pointer != IntPtr.Size || Marshal.OffsetOf(type, fields[i].Name).ToInt32() == at),
                           name + "." + fields[i].Name + " at " + at + " with " + pointer + "-byte pointers, C has " + expected);
                    at += width;
                    largest = Math.Max(largest, width);
                }
                int total = (at + largest - 1) / largest * largest;
                Expect(total == int.Parse(size.Groups[column - 1].Value) && (pointer != IntPtr.Size || Marshal.SizeOf(type) == total),
                       name + " is " + total + " bytes with " + pointer + "-byte pointers");
            }
        }
        Expect(rows == 32, rows + " field rows checked");
    }

    // Every case that needs no package, for runners without a test framework of their own.
    public static readonly Action[] All = { Defaults, KnownMachine, EmptyMachine, NoDatabase, ConcurrentQueries,
                                            RecordLayout };
}
