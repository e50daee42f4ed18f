/**
 * The text of an error number, re-entrantly.
 */
#ifndef KORVANE_INTERNAL_ERRNOTEXT_H
#define KORVANE_INTERNAL_ERRNOTEXT_H

#include <cstring>

namespace korvane::internal
{

/** strerror_r() (the GNU form, which returns the text) with its scratch. */
class ErrnoText
{
public:
    explicit ErrnoText(int number) : mText(strerror_r(number, mScratch, sizeof mScratch))
    {
    }
    ErrnoText(const ErrnoText&) = delete;
    ErrnoText& operator=(const ErrnoText&) = delete;

    /** Lives as long as this object. */
    const char* text() const
    {
        return mText;
    }

private:
    char mScratch[256];
    const char* mText;
};

} // namespace korvane::internal

#endif
