#include <Specs.h>

#include <stdio.h>

int main(void) {
    rigwarden_spec_info* info = rigwarden_get_spec_info(DATABASE_DIR);
    printf("adapters: %u, under min spec: %d\n", (unsigned)info->gpu_count, info->is_under_min_spec);
    int ok = info->error_message != NULL && info->under_min_spec_reason != NULL;
    rigwarden_free_spec_info(info);
    return ok ? 0 : 1;
}
