// Frame statistics: eight fixed timing zones that the frame loop and engine code open and
// close around their work. Each zone sums its microseconds over a frame; EndFrame folds
// the frame's sum into the zone's minimum, maximum, total and count.
//
// The records are process-wide and unlocked: only the frame loop's thread uses them.
#pragma once

#include "keel/klevent.h"

#include <cstdint>

namespace klFrameStats {

constexpr uint32_t kZoneCount = 8;
constexpr uint32_t kNoZone = 8;   // no zone open at a level
constexpr uint32_t kFramePeriod = 7;

struct Zone {
    uint32_t thisFrame; // microseconds so far in this frame
    uint32_t count;     // frames in which the zone was non-zero
    uint64_t total;
    uint32_t maximum;
    uint32_t minimum;   // 0: not set yet
};

// Zeroes every zone and timer and closes every level.
void Reset();
// One level deeper (at most 7); returns the new level before it is held at 7.
uint32_t PushLevel();
void PopLevel();
uint32_t Level();
// Opens zone at the current level and starts the level's timer.
void Begin(uint32_t zone);
// Adds the level's time to zone (the level's open zone when zone is negative) and closes
// the level. Zone numbers of 8 and above do nothing.
void End(int32_t zone);
// Folds this frame into the totals; every pushed level must be popped by now.
void EndFrame();
const char* ZoneName(uint32_t zone);
const Zone& GetZone(uint32_t zone);
// One line per zone that has counted a frame, to path ("wb") or to standard output when
// path is null. The stream is closed afterwards, standard output included.
void Report(const char* path);

} // namespace klFrameStats

// Opens a zone for one scope.
class klScopedZone {
public:
    explicit klScopedZone(uint32_t zone) : mZone(zone) { klFrameStats::Begin(zone); }
    ~klScopedZone() { klFrameStats::End(static_cast<int32_t>(mZone)); }
    klScopedZone(const klScopedZone&) = delete;
    klScopedZone& operator=(const klScopedZone&) = delete;

private:
    uint32_t mZone;
};
