#include "keel/kllineparser.h"

#include <cstring>

klLineParser::klLineParser(const void* data, uint32_t size)
    : mLineNumber(0), mRemaining(size), mCursor(static_cast<const uint8_t*>(data)) {}

bool klLineParser::ReadLine() {
    if (!mCursor || mRemaining == 0) return false;
    const void* feed = std::memchr(mCursor, '\n', mRemaining);
    const uint32_t length =
        feed ? uint32_t(static_cast<const uint8_t*>(feed) - mCursor) : mRemaining;
    mLine.Copy(reinterpret_cast<const char*>(mCursor), length);
    mCursor += length;
    mRemaining -= length;
    ++mLineNumber;
    if (mRemaining > 0) { // the line feed that ended the line
        ++mCursor;
        --mRemaining;
    }
    return true;
}
