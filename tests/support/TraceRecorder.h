/**
 * A trace library that remembers: replaces qn_log_print() in every test executable that links it.
 */
#ifndef KORVANE_TESTS_TRACERECORDER_H
#define KORVANE_TESTS_TRACERECORDER_H

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace support
{

/** One call of qn_log_print(), with its format applied. */
struct Trace
{
    std::string path;
    std::string function;
    int line = 0;
    int severity = 0;
    int size = 0;
    int flags = 0;
    std::string format;
    std::string text;
};

/** The columns of a full line. */
struct TraceColumns
{
    std::string letter;
    std::string tag;
    std::string file;
    int line = 0;
    std::string stamp;
    std::string message;
};

/** Splits a line that has the file and line columns; fails the test when it has another form. */
TraceColumns columnsOf(const std::string& text);

/** Returns and forgets everything that was traced so far, by any thread. */
std::vector<Trace> takeTraces();

/** takeTraces(), each as its letter, a blank and the whole message: "E iAP2_free error : ...". */
std::vector<std::string> takeMessages();

/** Is called, on the tracing thread, for every trace once it is remembered; empty for nobody. */
void onTrace(std::function<void(const std::string& text)> observer);

/** Counts the lines that hold a given text, on whatever thread, and waits for them. Uses onTrace(). */
class LineCounter
{
public:
    explicit LineCounter(std::string part);
    ~LineCounter();
    LineCounter(const LineCounter&) = delete;
    LineCounter& operator=(const LineCounter&) = delete;

    void waitFor(int count);

private:
    std::mutex mMutex;
    std::condition_variable mCounted;
    int mCount = 0;
};

/** Whether traces are remembered; while they are not, a trace costs no memory. */
void record(bool on);

/** What qn_log_print() returns from now on. */
void setTraceResult(int result);

/** A test that starts and ends with all levels printed and nothing remembered. */
class TraceTest : public ::testing::Test
{
protected:
    TraceTest();
    ~TraceTest() override;
};

} // namespace support

#endif
