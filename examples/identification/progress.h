/**
 * Progress lines: "<role>[<process>]: <text>". Whoever has something to say does not wait for it; the
 * library's queued log writes the lines, in their order, up to 100 ms later.
 */
#ifndef IDENTIFICATION_PROGRESS_H
#define IDENTIFICATION_PROGRESS_H

#include <string>

namespace identification
{

/**
 * The process's queued log, as long as this lives; there is one at a time. Its writer is a thread, so
 * no fork() may follow.
 */
class ProgressLog
{
public:
    /** Starts the log where `level` lets progress lines through; throws SystemError. */
    explicit ProgressLog(int level);

    /** Waits as awaitProgress() does, since the log's end drops what is left. Nobody may speak now. */
    ~ProgressLog();

    ProgressLog(const ProgressLog&) = delete;
    ProgressLog& operator=(const ProgressLog&) = delete;
};

/** Says something, on any thread; without a log nobody hears it. Throws std::bad_alloc. */
void sayProgress(const char* role, const std::string& text);

/** Waits until everything that was said has been written. */
void awaitProgress();

} // namespace identification

#endif
