// The launcher's view of Rigwarden: three plain classes and one static query. The work
// happens in the native rigwarden library; this file only carries its answer across.
using System;
using System.Runtime.InteropServices;

namespace Rigwarden
{
    // One distinct display adapter of the machine, with what the database says about it.
    public class GpuInfo
    {
        public string AdapterName;
        public uint VendorId;
        public uint DeviceId;
        public bool NotListed;
        public string NotListedInfo;
        public int RecommendedVideoQuality;   // -1: below the game's minimum spec
        public uint RecommendedWidth;
        public uint Benchmark;                // higher is faster
        public bool Mobile;

        public GpuInfo(string adapterName, uint vendorId, uint deviceId)
        {
            AdapterName = adapterName;
            VendorId = vendorId;
            DeviceId = deviceId;
            NotListed = true;
            RecommendedVideoQuality = 0;
            RecommendedWidth = 0;
            Benchmark = 0;
            Mobile = false;
        }
    }

    // The answer: probe failures, the verdict with the player's messages, every adapter.
    public class SpecInfo
    {
        public bool IsError;
        public string ErrorMessage;
        public bool IsUnderMinSpec;
        public string UnderMinSpecReason;
        public GpuInfo[] GpuInfo;
        public uint BestGpuIndex;

        public SpecInfo()
        {
            IsError = false;
            IsUnderMinSpec = false;
            BestGpuIndex = 0;
        }
    }

    // What a query lists besides the launcher's usual answer; the values are the C
    // interface's RIGWARDEN_QUERY_* flags.
    [Flags]
    public enum SpecQuery : uint
    {
        Default = 0,
        // Also the display devices that drive no desktop, such as the discrete GPU of a
        // hybrid laptop on Windows. Linux lists every display device anyway.
        AllAdapters = 1,
    }

    public class Specs
    {
        public Specs()
        {
        }

        // Probes this machine and judges it against the graphics-card database in
        // directory. Never null; probe failures arrive in IsError and ErrorMessage.
        public static SpecInfo GetSpecInfo(string directory)
        {
            return Query(Native.rigwarden_get_spec_info(directory ?? ""));
        }

        // The same query with options: SpecQuery.AllAdapters also lists the adapters that
        // drive no desktop, so a hybrid laptop shows its discrete GPU.
        public static SpecInfo GetSpecInfo(string directory, SpecQuery query)
        {
            return Query(Native.rigwarden_get_spec_info_ex(directory ?? "", (uint)query));
        }

        static SpecInfo Query(IntPtr native)
        {
            try
            {
                return Copy(Marshal.PtrToStructure<Native.SpecInfo>(native));
            }
            finally
            {
                Native.rigwarden_free_spec_info(native); // at once, even if copying failed
            }
        }

        static SpecInfo Copy(Native.SpecInfo native)
        {
            var info = new SpecInfo();
            info.IsError = native.is_error != 0;
            info.ErrorMessage = Text(native.error_message);
            info.IsUnderMinSpec = native.is_under_min_spec != 0;
            info.UnderMinSpecReason = Text(native.under_min_spec_reason);
            info.BestGpuIndex = native.best_gpu_index;
            info.GpuInfo = new GpuInfo[native.gpu_count];
            int stride = Marshal.SizeOf<Native.GpuInfo>();
            for (int i = 0; i < info.GpuInfo.Length; ++i)
            {
                var gpu = Marshal.PtrToStructure<Native.GpuInfo>(native.gpu_info + i * stride);
                info.GpuInfo[i] = new GpuInfo(Text(gpu.adapter_name), gpu.vendor_id, gpu.device_id)
                {
                    NotListed = gpu.not_listed != 0,
                    NotListedInfo = Text(gpu.not_listed_info),
                    RecommendedVideoQuality = gpu.recommended_video_quality,
                    RecommendedWidth = gpu.recommended_width,
                    Benchmark = gpu.benchmark,
                    Mobile = gpu.mobile != 0,
                };
            }
            return info;
        }

        // Native texts are in the process's multibyte code page; an absent one reads as "".
        static string Text(IntPtr text)
        {
            return Marshal.PtrToStringAnsi(text) ?? "";
        }
    }

    // The C interface of the native library, record for record.
    static class Native
    {
        [StructLayout(LayoutKind.Sequential)]
        internal struct GpuInfo
        {
            public IntPtr adapter_name;
            public uint vendor_id;
            public uint device_id;
            public byte not_listed;
            public IntPtr not_listed_info;
            public int recommended_video_quality;
            public uint recommended_width;
            public uint benchmark;
            public byte mobile;
        }

        [StructLayout(LayoutKind.Sequential)]
        internal struct SpecInfo
        {
            public byte is_error;
            public IntPtr error_message;
            public byte is_under_min_spec;
            public IntPtr under_min_spec_reason;
            public uint gpu_count;
            public IntPtr gpu_info;
            public uint best_gpu_index;
        }

        [DllImport("rigwarden", CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr rigwarden_get_spec_info([MarshalAs(UnmanagedType.LPStr)] string databaseDir);

        [DllImport("rigwarden", CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr rigwarden_get_spec_info_ex([MarshalAs(UnmanagedType.LPStr)] string databaseDir,
                                                                 uint flags);

        [DllImport("rigwarden", CallingConvention = CallingConvention.Cdecl)]
        internal static extern void rigwarden_free_spec_info(IntPtr info);
    }
}
