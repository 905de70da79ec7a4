// The managed classes on a real runtime, against captured machines written to a scratch
// folder that RIGWARDEN_ROOT points the native probes at. Each case throws on its first
// failed check; Mono's runner (SpecsTests.cs) and the xunit project on .NET both run them.
using System;
using System.IO;
using System.Linq;
using System.Reflection;
using System.Runtime.InteropServices;
using System.Text.RegularExpressions;
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

    // A machine for the Linux probes with two display adapters (the Intel one drives the
    // display) or none, its files as "path=text"; returns its database folder.
    static string MakeMachine(string name, bool withGpus)
    {
        string root = Path.Combine(Machines, name), pci = "sys/bus/pci/devices/0000:0";
        string[] files = { "proc/meminfo=MemTotal:       16777216 kB", "sys/devices/system/cpu/online=0-7",
                           "proc/cpuinfo=" + (withGpus ? "model name\t: CPU @ 3.40GHz" : ""),
                           "db/gpus.cfg=10DE, 2684, 4, 3840, 9800, M" };
        string[] gpus = { "0:02.0/class=0x030000", "0:02.0/vendor=0x8086", "0:02.0/device=0xa780", "0:02.0/boot_vga=1",
                          "1:00.0/class=0x030000", "1:00.0/vendor=0x10de", "1:00.0/device=0x2684", "1:00.0/boot_vga=0" };
        foreach (string file in files.Concat((withGpus ? gpus : new string[0]).Select(gpu => pci + gpu)))
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
        string db = MakeMachine("known", true);
        Expect((uint)SpecQuery.AllAdapters == 1, "the query flag is the C one");
        // Linux lists every display device already: asking for all of them changes nothing.
        foreach (SpecInfo info in new[] { Specs.GetSpecInfo(db), Specs.GetSpecInfo(db, SpecQuery.AllAdapters) })
        {
            Expect(!info.IsError && info.ErrorMessage == "" && !info.IsUnderMinSpec && info.UnderMinSpecReason == "" &&
                   info.GpuInfo.Length == 2 && info.BestGpuIndex == 1, "the verdict: " + info.UnderMinSpecReason);
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

    public static void EmptyMachine()
    {
        SpecInfo info = Specs.GetSpecInfo(MakeMachine("empty", false));
        Expect(info.GpuInfo != null && info.GpuInfo.Length == 0 && info.BestGpuIndex == 0, "empty adapter array");
        Expect(info.IsError && info.ErrorMessage == "Failed to detect CPU core speed from the system registry.\n",
               "processor failure reported: " + info.ErrorMessage);
        Expect(info.IsUnderMinSpec && info.UnderMinSpecReason.Contains("No graphics adapter detected in your " +
                   "system. This game requires accelerated 3D graphics to function correctly.\n"), "missing adapter");
    }

    // The default database that travels with the assembly (the package's content files
    // land beside it in a consumer's output) knows the machine's discrete card.
    public static void BundledDatabase()
    {
        MakeMachine("bundled", true);
        string folder = Path.Combine(Path.GetDirectoryName(typeof(Specs).Assembly.Location), "gpudb");
        SpecInfo info = Specs.GetSpecInfo(folder);
        Expect(info.GpuInfo.Length == 2 && !info.GpuInfo[1].NotListed && info.GpuInfo[1].RecommendedVideoQuality == 4,
               "the bundled database in " + folder + " lists the RTX 4090");
    }

    // The marshalling declarations against the table of specs_layout.h (embedded in the
    // assembly) at both pointer sizes, laid out by the marshaller's rules: each field at the
    // next multiple of its size, the record rounded up to its largest field. At this
    // process's pointer size the marshaller itself confirms it.
    public static void RecordLayout()
    {
        string table;
        using (var stream = Assembly.GetExecutingAssembly().GetManifestResourceStream("specs_layout.h"))
            table = new StreamReader(stream).ReadToEnd();
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
                bool native = pointer == IntPtr.Size;
                for (int i = 0; i < fields.Length; ++i)
                {
                    Type field = fields[i].FieldType;
                    int width = field == typeof(IntPtr) ? pointer : Marshal.SizeOf(field);
                    at = (at + width - 1) / width * width;
                    Expect(at == int.Parse(columns[i].Groups[column].Value) &&
                               (!native || Marshal.OffsetOf(type, fields[i].Name).ToInt32() == at),
                           name + "." + fields[i].Name + " at " + at + " with " + pointer + "-byte pointers");
                    at += width;
                    largest = Math.Max(largest, width);
                }
                int total = (at + largest - 1) / largest * largest;
                Expect(total == int.Parse(size.Groups[column - 1].Value) && (!native || Marshal.SizeOf(type) == total),
                       name + " is " + total + " bytes with " + pointer + "-byte pointers");
            }
        }
    }

    // Every case that needs no package, for runners without a test framework of their own.
    public static readonly Action[] All = { KnownMachine, EmptyMachine, RecordLayout };
}
