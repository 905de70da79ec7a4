#include "keel/klstats.h"

#include "keel/klassert.h"
#include "keel/klfilesystem.h"

#include <cinttypes>
#include <cstdio>

namespace {

constexpr uint32_t kLevels = 8;

klFrameStats::Zone gZones[klFrameStats::kZoneCount];
uint32_t gOpenZone[kLevels] = {8, 8, 8, 8, 8, 8, 8, 8};
klTimer gLevelTimer[kLevels];
uint8_t mLevel = 0; // named as the assertion in EndFrame reports it

const char* const kZoneNames[klFrameStats::kZoneCount] = {
    "Skinning", "Animation", "Other (game)", "Culling", "Physics", "Lighting", "Transform", "Frame Period"};

} // namespace

void klFrameStats::Reset() {
    for (Zone& zone : gZones) zone = Zone{};
    for (uint32_t level = 0; level < kLevels; ++level) {
        gOpenZone[level] = kNoZone;
        gLevelTimer[level] = klTimer();
    }
    mLevel = 0;
}

uint32_t klFrameStats::PushLevel() {
    const uint32_t level = mLevel + 1u;
    mLevel = static_cast<uint8_t>(level < kLevels ? level : kLevels - 1);
    return level;
}

void klFrameStats::PopLevel() {
    if (mLevel > 0) --mLevel;
}

uint32_t klFrameStats::Level() { return mLevel; }

void klFrameStats::Begin(uint32_t zone) {
    gOpenZone[mLevel] = zone;
    gLevelTimer[mLevel].Start();
}

void klFrameStats::End(int32_t zone) {
    const uint32_t which = zone < 0 ? gOpenZone[mLevel] : static_cast<uint32_t>(zone);
    if (which >= kZoneCount) return;
    gZones[which].thisFrame += static_cast<uint32_t>(gLevelTimer[mLevel].ElapsedMicroseconds(false));
    gOpenZone[mLevel] = kNoZone;
}

void klFrameStats::EndFrame() {
    for (Zone& zone : gZones) {
        const uint32_t v = zone.thisFrame;
        if (v == 0) continue;
        if (v > zone.maximum) zone.maximum = v;
        if (v < zone.minimum || zone.minimum == 0) zone.minimum = v;
        zone.total += v;
        ++zone.count;
        zone.thisFrame = 0;
    }
    klAssert(mLevel == 0);
}

const char* klFrameStats::ZoneName(uint32_t zone) { return zone < kZoneCount ? kZoneNames[zone] : ""; }

const klFrameStats::Zone& klFrameStats::GetZone(uint32_t zone) {
    static const Zone kNone{};
    return zone < kZoneCount ? gZones[zone] : kNone;
}

// The stream is closed even when it is standard output: a report ends the process's
// console output, which is how the tools that call it finish.
void klFrameStats::Report(const char* path) {
    FILE* out = path ? klFileSystem::Open(path, "wb") : stdout;
    if (!out) return;
    for (uint32_t i = 0; i < kZoneCount; ++i) {
        const Zone& zone = gZones[i];
        if (zone.count == 0) continue;
        // "miscroseconds" stays misspelt: scripts that read these reports match on it.
        std::fprintf(out, "%20s min %u max %u avg %u miscroseconds/frame\n", kZoneNames[i], zone.minimum,
                     zone.maximum, static_cast<uint32_t>(zone.total / zone.count));
    }
    if (path)
        klFileSystem::Close(out);
    else
        std::fclose(out);
}
