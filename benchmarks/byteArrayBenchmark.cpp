// Byte arrays: appends into reserved room beside plain stores, copies and slices beside new, memcpy()
// and delete, all of them beside std::string too.
#include <benchmark/benchmark.h>
#include <cstddef>
#include <cstring>
#include <string>

#include <korvane/ByteArray.h>

#include "allocations.h"
#include "benchmarks.h"

namespace
{

using IAP2::ByteArray;

/* ---- Appends --------------------------------------------------------------------------------- */

constexpr int kRoom = 4096; // content that a benchmark fills before it starts over

/** What a plain store needs to know: where, and how far. */
struct PlainBuffer
{
    char* bytes;
    int used;
};

/** Counts the calls that fit into the room; `restart` empties it. */
template <typename Append, typename Restart>
void appendMany(benchmark::State& state, std::size_t size, Append append, Restart restart)
{
    const int calls = kRoom / static_cast<int>(size);
    const AllocationReport report(state, calls);
    for ([[maybe_unused]] auto iteration : state)
    {
        restart();
        for (int i = 0; i < calls; ++i)
        {
            append();
        }
    }
}

std::string pattern(std::size_t size)
{
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
    {
        bytes[i] = static_cast<char>('a' + i % 26);
    }
    return bytes;
}

ByteArray reservedArray()
{
    ByteArray array;
    array.reserve(kRoom);
    return array;
}

void appendByte(benchmark::State& state)
{
    ByteArray array = reservedArray();
    char byte = 'x';
    appendMany(
        state, 1,
        [&]
        {
            benchmark::DoNotOptimize(byte);
            array.append(byte);
            benchmark::ClobberMemory();
        },
        [&] { array.resize(0); });
}

void storeByte(benchmark::State& state)
{
    std::string storage(kRoom + 1, '\0');
    PlainBuffer plain{storage.data(), 0};
    benchmark::DoNotOptimize(&plain); // lives in memory, as an array does
    char byte = 'x';
    appendMany(
        state, 1,
        [&]
        {
            benchmark::DoNotOptimize(byte);
            plain.bytes[plain.used] = byte;
            plain.bytes[++plain.used] = 0;
            benchmark::ClobberMemory();
        },
        [&] { plain.used = 0; });
}

void appendByteToString(benchmark::State& state)
{
    std::string text;
    text.reserve(kRoom);
    benchmark::DoNotOptimize(&text);
    char byte = 'x';
    appendMany(
        state, 1,
        [&]
        {
            benchmark::DoNotOptimize(byte);
            text.push_back(byte);
            benchmark::ClobberMemory();
        },
        [&] { text.clear(); });
}

void appendBytes(benchmark::State& state, std::size_t size)
{
    ByteArray array = reservedArray();
    std::string bytes = pattern(size);
    appendMany(
        state, size,
        [&]
        {
            benchmark::DoNotOptimize(size);
            array.append(bytes.data(), static_cast<int>(size));
            benchmark::ClobberMemory();
        },
        [&] { array.resize(0); });
}

void storeBytes(benchmark::State& state, std::size_t size)
{
    std::string storage(kRoom + 1, '\0');
    PlainBuffer plain{storage.data(), 0};
    benchmark::DoNotOptimize(&plain);
    const std::string bytes = pattern(size);
    appendMany(
        state, size,
        [&]
        {
            benchmark::DoNotOptimize(size);
            std::memcpy(plain.bytes + plain.used, bytes.data(), size);
            plain.used += static_cast<int>(size);
            plain.bytes[plain.used] = 0;
            benchmark::ClobberMemory();
        },
        [&] { plain.used = 0; });
}

void appendBytesToString(benchmark::State& state, std::size_t size)
{
    std::string text;
    text.reserve(kRoom);
    benchmark::DoNotOptimize(&text);
    const std::string bytes = pattern(size);
    appendMany(
        state, size,
        [&]
        {
            benchmark::DoNotOptimize(size);
            text.append(bytes.data(), size);
            benchmark::ClobberMemory();
        },
        [&] { text.clear(); });
}

/** Without reserve(): every append takes a buffer. */
void growArray(benchmark::State& state, std::size_t size)
{
    ByteArray array;
    std::string bytes = pattern(size);
    appendMany(
        state, size, [&] { array.append(bytes.data(), static_cast<int>(size)); },
        [&] { array = ByteArray(bytes.data(), 1); });
}

void growString(benchmark::State& state, std::size_t size)
{
    std::string text;
    const std::string bytes = pattern(size);
    appendMany(
        state, size, [&] { text.append(bytes.data(), size); }, [&] { text = std::string(); });
}

/* ---- Copies and slices ----------------------------------------------------------------------- */

void copyArray(benchmark::State& state, std::size_t size)
{
    std::string bytes = pattern(size);
    ByteArray array(bytes.data(), static_cast<int>(size));
    const AllocationReport report(state);
    for ([[maybe_unused]] auto iteration : state)
    {
        benchmark::DoNotOptimize(&array);
        ByteArray copy(
            array); // NOLINT(performance-unnecessary-copy-initialization): it is measured
        benchmark::DoNotOptimize(&copy);
        benchmark::ClobberMemory();
    }
}

void sliceArray(benchmark::State& state, std::size_t size)
{
    std::string bytes = pattern(size + 2);
    ByteArray array(bytes.data(), static_cast<int>(size + 2));
    const AllocationReport report(state);
    for ([[maybe_unused]] auto iteration : state)
    {
        benchmark::DoNotOptimize(size);
        ByteArray slice = array.mid(1, static_cast<int>(size));
        benchmark::DoNotOptimize(&slice);
        benchmark::ClobberMemory();
    }
}

void copyPlainly(benchmark::State& state, std::size_t size)
{
    const std::string bytes = pattern(size);
    const AllocationReport report(state);
    for ([[maybe_unused]] auto iteration : state)
    {
        benchmark::DoNotOptimize(size);
        char* copy = new char[size + 1];
        benchmark::DoNotOptimize(copy);
        std::memcpy(copy, bytes.data(), size + 1);
        benchmark::ClobberMemory();
        delete[] copy;
    }
}

void copyString(benchmark::State& state, std::size_t size)
{
    std::string text = pattern(size);
    const AllocationReport report(state);
    for ([[maybe_unused]] auto iteration : state)
    {
        benchmark::DoNotOptimize(&text);
        std::string copy(
            text); // NOLINT(performance-unnecessary-copy-initialization): it is measured
        benchmark::DoNotOptimize(&copy);
        benchmark::ClobberMemory();
    }
}

void sliceString(benchmark::State& state, std::size_t size)
{
    const std::string text = pattern(size + 2);
    const AllocationReport report(state);
    for ([[maybe_unused]] auto iteration : state)
    {
        benchmark::DoNotOptimize(size);
        std::string slice = text.substr(1, size);
        benchmark::DoNotOptimize(&slice);
        benchmark::ClobberMemory();
    }
}

using Sized = void (*)(benchmark::State&, std::size_t);

void addRow(const std::string& row, Sized work, Sized floor, std::size_t size)
{
    benchmark::RegisterBenchmark((row + "/work").c_str(), work, size);
    benchmark::RegisterBenchmark((row + "/floor").c_str(), floor, size);
}

} // namespace

const char* findByteArrayDifference()
{
    constexpr std::size_t size = 40;
    std::string bytes = pattern(size);
    ByteArray array = reservedArray();
    std::string text;
    for (int i = 0; i < 3; ++i)
    {
        array.append(bytes.data(), static_cast<int>(size));
        text.append(bytes.data(), size);
        array.append('x');
        text.push_back('x');
    }
    const auto differs = [](ByteArray& left, const std::string& right)
    {
        return left.length() != static_cast<int>(right.size()) ||
               std::memcmp(left.data(), right.c_str(), right.size() + 1) != 0;
    };
    if (differs(array, text))
    {
        return "an appended byte array and a string differ";
    }
    ByteArray copy(array);
    if (differs(copy, text))
    {
        return "the copy of a byte array differs";
    }
    ByteArray slice = array.mid(1, size);
    if (differs(slice, text.substr(1, size)))
    {
        return "a slice of a byte array differs";
    }
    return nullptr;
}

void registerByteArrayBenchmarks()
{
    benchmark::RegisterBenchmark("ByteArrayAppend.1/work", appendByte);
    benchmark::RegisterBenchmark("ByteArrayAppend.1/floor", storeByte);
    benchmark::RegisterBenchmark("ByteArrayAppend.1.string/work", appendByte);
    benchmark::RegisterBenchmark("ByteArrayAppend.1.string/floor", appendByteToString);
    for (const std::size_t size : {16U, 256U})
    {
        const std::string row = "ByteArrayAppend." + std::to_string(size);
        addRow(row, appendBytes, storeBytes, size);
        addRow(row + ".string", appendBytes, appendBytesToString, size);
    }
    addRow("ByteArrayAppend.16.growing", growArray, growString, 16);
    for (const std::size_t size : {16U, 256U, 4096U})
    {
        const std::string suffix = std::to_string(size);
        addRow("ByteArrayCopy." + suffix, copyArray, copyPlainly, size);
        addRow("ByteArrayCopy." + suffix + ".string", copyArray, copyString, size);
        addRow("ByteArraySlice." + suffix, sliceArray, copyPlainly, size);
        addRow("ByteArraySlice." + suffix + ".string", sliceArray, sliceString, size);
    }
}
