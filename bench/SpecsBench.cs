// What the managed boundary adds to a query: Specs.GetSpecInfo beside the bare native
// call (and free) on the same captured machine, in one run.
//   mono SpecsBench.exe [queries]
using System;
using System.Diagnostics;
using System.IO;
using System.Runtime.InteropServices;
using Rigwarden;

static class SpecsBench
{
    [DllImport("rigwarden", CallingConvention = CallingConvention.Cdecl)]
    static extern IntPtr rigwarden_get_spec_info([MarshalAs(UnmanagedType.LPStr)] string databaseDir);
    [DllImport("rigwarden", CallingConvention = CallingConvention.Cdecl)]
    static extern void rigwarden_free_spec_info(IntPtr info);
    [DllImport("libc")]
    static extern int setenv(string name, string value, int overwrite);

    static void Write(string root, string relative, string text)
    {
        string path = Path.Combine(root, relative);
        Directory.CreateDirectory(Path.GetDirectoryName(path));
        File.WriteAllText(path, text);
    }

    static string MakeMachine()
    {
        string root = Path.Combine(Path.GetTempPath(), "rigwarden-bench-managed");
        Write(root, "proc/cpuinfo", "model name\t: CPU @ 3.40GHz\n");
        Write(root, "proc/meminfo", "MemTotal:       16777216 kB\n");
        Write(root, "sys/devices/system/cpu/online", "0-7\n");
        string[] gpus = { "0000:00:02.0 0x8086 0xa780 1", "0000:01:00.0 0x10de 0x2684 0" };
        foreach (string gpu in gpus)
        {
            string[] f = gpu.Split(' ');
            string folder = "sys/bus/pci/devices/" + f[0] + "/";
            Write(root, folder + "class", "0x030000\n");
            Write(root, folder + "vendor", f[1] + "\n");
            Write(root, folder + "device", f[2] + "\n");
            Write(root, folder + "boot_vga", f[3] + "\n");
        }
        Write(root, "db/gpus.cfg", "10DE, 2684, 4, 3840, 9800, D\n8086, A780, 1, 1600, 300, D\n");
        setenv("RIGWARDEN_ROOT", root, 1);
        return Path.Combine(root, "db");
    }

    static double MicrosecondsPerQuery(int queries, Action query)
    {
        for (int i = 0; i < queries / 10; ++i) query();
        var clock = Stopwatch.StartNew();
        for (int i = 0; i < queries; ++i) query();
        return clock.Elapsed.TotalMilliseconds * 1000.0 / queries;
    }

    static int Main(string[] args)
    {
        int queries = args.Length > 0 ? int.Parse(args[0]) : 20000;
        string db = MakeMachine();
        // Alternating rounds, the best of each: the file system's caches favour whichever
        // runs second otherwise.
        double native = double.MaxValue, managed = double.MaxValue;
        for (int round = 0; round < 3; ++round)
        {
            native = Math.Min(native, MicrosecondsPerQuery(queries, () => rigwarden_free_spec_info(rigwarden_get_spec_info(db))));
            managed = Math.Min(managed, MicrosecondsPerQuery(queries, () => Specs.GetSpecInfo(db)));
        }
        Console.WriteLine("native query + free      {0,8:F2} us", native);
        Console.WriteLine("Specs.GetSpecInfo        {0,8:F2} us", managed);
        Console.WriteLine("boundary adds            {0,8:F2} us per query ({1:F2}x)", managed - native, managed / native);
        return 0;
    }
}
