// klLineParser: walks a block of text in memory one line at a time. Only the current
// line is copied out; the block itself must stay alive and unchanged while it is read.
//
// A line ends only at a line feed. A carriage return is ordinary data (a CR LF file
// leaves it at the end of each line), nothing is trimmed, a final line without a line
// feed still counts, and a line feed as the last byte ends the last line without
// starting an empty one.
#pragma once

#include "keel/klstring.h"

#include <cstdint>

class klLineParser {
public:
    // The block is neither copied nor checked.
    klLineParser(const void* data, uint32_t size);

    // Reads the next line into GetLineText(); false at the end, where the previous line
    // text stays.
    bool ReadLine();
    // The line of the last successful ReadLine; valid until the next call.
    const klString& GetLineText() const { return mLine; }
    // Lines read so far.
    uint32_t GetLineNumber() const { return mLineNumber; }

private:
    uint32_t mLineNumber;
    uint32_t mRemaining;
    const uint8_t* mCursor;
    klString mLine;
};
