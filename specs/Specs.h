/* Rigwarden's C interface: the only symbols the rigwarden shared library exports.
 *
 * rigwarden_get_spec_info probes this machine, matches its display adapters against the
 * graphics-card database in database_dir (every "*.cfg" file there) and judges it
 * against the game's minimum spec. The answer is one heap block: free it with
 * rigwarden_free_spec_info. Every text in it is a zero-terminated string, never null
 * (possibly empty); gpu_info is null only when gpu_count is 0. Queries keep no state and
 * may run on several threads at once. */
#ifndef RIGWARDEN_SPECS_H
#define RIGWARDEN_SPECS_H

#include <stdint.h>

#if defined(_WIN32)
#if defined(RIGWARDEN_BUILDING)
#define RIGWARDEN_API __declspec(dllexport)
#else
#define RIGWARDEN_API __declspec(dllimport)
#endif
#else
#define RIGWARDEN_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef struct rigwarden_gpu_info {
    const char* adapter_name;          /* as the display enumeration names it */
    uint32_t vendor_id;                /* PCI vendor id */
    uint32_t device_id;                /* PCI device id */
    uint8_t not_listed;                /* 1: not in the database */
    const char* not_listed_info;       /* the player's message when not listed, else "" */
    int32_t recommended_video_quality; /* -1: below the minimum spec */
    uint32_t recommended_width;
    uint32_t benchmark;                /* higher is faster */
    uint8_t mobile;
} rigwarden_gpu_info;

typedef struct rigwarden_spec_info {
    uint8_t is_error;                  /* a probe failed; error_message says how */
    const char* error_message;
    uint8_t is_under_min_spec;
    const char* under_min_spec_reason; /* one line per failed minimum */
    uint32_t gpu_count;
    const rigwarden_gpu_info* gpu_info;
    uint32_t best_gpu_index;           /* indexes gpu_info; 0 when there is none */
} rigwarden_spec_info;

/* Runs one query; never returns null. A null or empty folder finds no database. */
RIGWARDEN_API rigwarden_spec_info* rigwarden_get_spec_info(const char* database_dir);

/* Flags of rigwarden_get_spec_info_ex. */
/* Also list the present display devices that drive no desktop, such as the render-only
 * discrete GPU of a hybrid laptop (Windows: from the device registry, without waking the
 * device). On Linux every display device is listed anyway, so the flag changes nothing. */
#define RIGWARDEN_QUERY_ALL_ADAPTERS 0x1u

/* rigwarden_get_spec_info with options: flags is 0 (the same query) or a combination of
 * RIGWARDEN_QUERY_* bits; other bits are ignored. */
RIGWARDEN_API rigwarden_spec_info* rigwarden_get_spec_info_ex(const char* database_dir, uint32_t flags);
/* Frees an answer; null is fine. */
RIGWARDEN_API void rigwarden_free_spec_info(rigwarden_spec_info* info);

#ifdef __cplusplus
}
#endif

#endif
