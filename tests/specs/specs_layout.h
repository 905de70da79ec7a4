/* The byte layout of the records of Specs.h with 4-byte and with 8-byte pointers: FIELD(record,
 * field, offset, offset) in field order, then SIZE(record, size, size); checked at compile time. */
#ifndef RIGWARDEN_SPECS_LAYOUT_H
#define RIGWARDEN_SPECS_LAYOUT_H

#define RIGWARDEN_SPECS_LAYOUT(FIELD, SIZE)                       \
    FIELD(rigwarden_gpu_info, adapter_name, 0, 0)                 \
    FIELD(rigwarden_gpu_info, vendor_id, 4, 8)                    \
    FIELD(rigwarden_gpu_info, device_id, 8, 12)                   \
    FIELD(rigwarden_gpu_info, not_listed, 12, 16)                 \
    FIELD(rigwarden_gpu_info, not_listed_info, 16, 24)            \
    FIELD(rigwarden_gpu_info, recommended_video_quality, 20, 32)  \
    FIELD(rigwarden_gpu_info, recommended_width, 24, 36)          \
    FIELD(rigwarden_gpu_info, benchmark, 28, 40)                  \
    FIELD(rigwarden_gpu_info, mobile, 32, 44)                     \
    SIZE(rigwarden_gpu_info, 36, 48)                              \
    FIELD(rigwarden_spec_info, is_error, 0, 0)                    \
    FIELD(rigwarden_spec_info, error_message, 4, 8)               \
    FIELD(rigwarden_spec_info, is_under_min_spec, 8, 16)          \
    FIELD(rigwarden_spec_info, under_min_spec_reason, 12, 24)     \
    FIELD(rigwarden_spec_info, gpu_count, 16, 32)                 \
    FIELD(rigwarden_spec_info, gpu_info, 20, 40)                  \
    FIELD(rigwarden_spec_info, best_gpu_index, 24, 48)            \
    SIZE(rigwarden_spec_info, 28, 56)

#endif
