#include "TraceRecorder.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <utility>

#include <korvane/iAp2LogUtil.h>
#include <traceif/traceif.h>

namespace support
{

namespace
{

std::mutex mutex;
std::vector<Trace> traces;
std::function<void(const std::string&)> observer;
int traceResult = 0;
std::atomic<bool> recording{true};

__attribute__((format(printf, 1, 0))) std::string formatted(const char* pattern, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, pattern, again);
    va_end(again);
    std::string text(static_cast<std::size_t>(length), '\0');
    std::vsnprintf(text.data(), text.size() + 1, pattern, arguments);
    return text;
}

} // namespace

TraceColumns columnsOf(const std::string& text)
{
    // letter, tag, file, line, stamp: no column holds a blank, but some are padded with them.
    std::string columns[5];
    std::size_t position = 0;
    for (std::string& column : columns)
    {
        const std::size_t begin = text.find_first_not_of(' ', position);
        const std::size_t end = begin == std::string::npos ? begin : text.find(' ', begin);
        if (end == std::string::npos)
        {
            ADD_FAILURE() << "not a line with all columns: " << text;
            return {};
        }
        column = text.substr(begin, end - begin);
        position = end;
    }
    const auto padded = [](const std::string& column, std::size_t width)
    { return std::string(width - std::min(width, column.size()), ' ') + column; };
    EXPECT_EQ(text.substr(0, position), columns[0] + " " + columns[1] + " " +
                                            padded(columns[2], 22) + " " + padded(columns[3], 5) +
                                            " " + columns[4]);
    EXPECT_EQ(columns[0].size(), 1U);
    EXPECT_EQ(columns[4].size(), std::string("00:00:00:000").size());
    return {columns[0], columns[1],
            columns[2], std::stoi(columns[3]),
            columns[4], text.substr(position + 1)};
}

std::vector<Trace> takeTraces()
{
    const std::lock_guard<std::mutex> lock(mutex);
    return std::exchange(traces, {});
}

std::vector<std::string> takeMessages()
{
    std::vector<std::string> messages;
    for (const Trace& trace : takeTraces())
    {
        const TraceColumns columns = columnsOf(trace.text);
        EXPECT_EQ(columns.tag, "IAP2") << trace.text;
        messages.push_back(columns.letter + " " + columns.message);
    }
    return messages;
}

void onTrace(std::function<void(const std::string& text)> newObserver)
{
    const std::lock_guard<std::mutex> lock(mutex);
    observer = std::move(newObserver);
}

LineCounter::LineCounter(std::string part)
{
    onTrace(
        [this, part = std::move(part)](const std::string& text)
        {
            if (text.find(part) != std::string::npos)
            {
                const std::lock_guard<std::mutex> lock(mMutex);
                ++mCount;
                mCounted.notify_all();
            }
        });
}

LineCounter::~LineCounter()
{
    onTrace(nullptr);
}

void LineCounter::waitFor(int count)
{
    std::unique_lock<std::mutex> lock(mMutex);
    mCounted.wait(lock, [&] { return mCount >= count; });
}

void record(bool on)
{
    recording = on;
}

void setTraceResult(int result)
{
    const std::lock_guard<std::mutex> lock(mutex);
    traceResult = result;
}

TraceTest::TraceTest()
{
    setLogLevel(0);
    takeTraces();
}

TraceTest::~TraceTest()
{
    setLogLevel(0);
    onTrace(nullptr);
    setTraceResult(0);
    takeTraces();
}

} // namespace support

extern "C" int qn_log_print(const char* path, const char* function, int line, int severity,
                            int size, int flags, const char* format, ...)
{
    if (!support::recording)
    {
        return 0;
    }
    va_list arguments;
    va_start(arguments, format);
    const std::string text = support::formatted(format, arguments);
    va_end(arguments);

    std::function<void(const std::string&)> observer;
    int result = 0;
    {
        const std::lock_guard<std::mutex> lock(support::mutex);
        support::traces.push_back({path, function, line, severity, size, flags, format, text});
        observer = support::observer;
        result = support::traceResult;
    }
    if (observer)
    {
        observer(text);
    }
    return result;
}
