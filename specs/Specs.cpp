#include "Specs.h"

#include "oRigwarden.h"

#include <cstring>
#include <new>

namespace {

// Lays the answer out in one block: the record, the adapter array, then every text.
class AnswerBlock {
public:
    explicit AnswerBlock(const vsQueryResult& result) {
        size_t bytes = sizeof(rigwarden_spec_info) + result.adapters.size() * sizeof(rigwarden_gpu_info);
        bytes += TextBytes(result.probeErrors) + TextBytes(result.spec.underMinSpecReason);
        for (const vsGpuInfo& adapter : result.adapters)
            bytes += TextBytes(adapter.name) + TextBytes(adapter.notListedInfo);
        mBlock = new char[bytes];
        mTexts = mBlock + sizeof(rigwarden_spec_info) + result.adapters.size() * sizeof(rigwarden_gpu_info);
    }

    rigwarden_spec_info* Info() { return reinterpret_cast<rigwarden_spec_info*>(mBlock); }
    rigwarden_gpu_info* Adapters() { return reinterpret_cast<rigwarden_gpu_info*>(mBlock + sizeof(rigwarden_spec_info)); }

    const char* CopyText(const klString& text) {
        char* copy = mTexts;
        std::memcpy(copy, text.Const(), text.Size() + 1);
        mTexts += text.Size() + 1;
        return copy;
    }

private:
    static size_t TextBytes(const klString& text) { return text.Size() + 1; }

    char* mBlock;
    char* mTexts;
};

rigwarden_gpu_info ToC(const vsGpuInfo& adapter, AnswerBlock& block) {
    return {block.CopyText(adapter.name),
            adapter.vendorId,
            adapter.deviceId,
            uint8_t(adapter.notListed),
            block.CopyText(adapter.notListedInfo),
            adapter.recommendedVideoQuality,
            adapter.recommendedWidth,
            adapter.benchmark,
            uint8_t(adapter.mobile)};
}

} // namespace

static_assert(RIGWARDEN_QUERY_ALL_ADAPTERS == vsQueryAllAdapters, "the C flag is the native one");

extern "C" rigwarden_spec_info* rigwarden_get_spec_info(const char* database_dir) {
    return rigwarden_get_spec_info_ex(database_dir, 0);
}

extern "C" rigwarden_spec_info* rigwarden_get_spec_info_ex(const char* database_dir, uint32_t flags) {
    vsQueryResult result = oRigwarden::RunQuery(klString(database_dir), flags);
    AnswerBlock block(result);
    rigwarden_gpu_info* adapters = block.Adapters();
    for (size_t i = 0; i < result.adapters.size(); ++i) adapters[i] = ToC(result.adapters[i], block);

    rigwarden_spec_info* info = block.Info();
    info->is_error = !result.probeErrors.IsEmpty();
    info->error_message = block.CopyText(result.probeErrors);
    info->is_under_min_spec = result.spec.underMinSpec;
    info->under_min_spec_reason = block.CopyText(result.spec.underMinSpecReason);
    info->gpu_count = uint32_t(result.adapters.size());
    info->gpu_info = result.adapters.empty() ? nullptr : adapters;
    info->best_gpu_index = result.bestIndex;
    return info;
}

extern "C" void rigwarden_free_spec_info(rigwarden_spec_info* info) {
    delete[] reinterpret_cast<char*>(info);
}
