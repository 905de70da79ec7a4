// A launcher's first screen: asks Rigwarden about this machine and tells the player what
// it found, as a launcher would before starting the game.
//   mono Launcher.exe [database folder]
using System;
using Rigwarden;

static class Launcher
{
    static int Main(string[] args)
    {
        string database = args.Length > 0 ? args[0] : "gpudb";
        SpecInfo info = Specs.GetSpecInfo(database);

        Console.WriteLine("Vornhold - system check");
        if (info.IsError)
            Console.Write("We could not read everything about your computer:\n  " + info.ErrorMessage.Replace("\n", "\n  "));
        if (info.GpuInfo.Length > 0)
        {
            GpuInfo best = info.GpuInfo[info.BestGpuIndex];
            Console.WriteLine("Graphics: " + best.AdapterName);
            if (best.NotListed)
                Console.WriteLine("  " + best.NotListedInfo);
            else
                Console.WriteLine("  Recommended: quality " + best.RecommendedVideoQuality + ", width " + best.RecommendedWidth +
                                  (best.Mobile ? " (laptop graphics)" : ""));
            for (int i = 0; i < info.GpuInfo.Length; ++i)
                if (i != info.BestGpuIndex) Console.WriteLine("  Also found: " + info.GpuInfo[i].AdapterName);
        }
        if (info.IsUnderMinSpec)
        {
            Console.WriteLine("Your computer is below the minimum requirements:");
            Console.Write("  " + info.UnderMinSpecReason.TrimEnd('\n').Replace("\n", "\n  ") + "\n");
            Console.WriteLine("You can still play, but the game may not run well.");
        }
        else
        {
            Console.WriteLine("Your computer meets the requirements. Enjoy the game!");
        }
        return info.IsUnderMinSpec ? 1 : 0;
    }
}
