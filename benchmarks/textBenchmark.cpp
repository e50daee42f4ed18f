// Base64 beside OpenSSL and GLib, decoded fields beside a byte-swapped load, the secured form beside
// the same made by hand.
#include <benchmark/benchmark.h>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <glib.h>
#include <openssl/evp.h>

#include <korvane/iAP2Utils.h>
#include <korvane/utils.h>

#include "allocations.h"
#include "benchmarks.h"
#include "repeat.h"
#include "swappedLoad.h"

namespace
{

/* ---- Base64 ---------------------------------------------------------------------------------- */

std::vector<unsigned char> someBytes(std::size_t size)
{
    std::vector<unsigned char> bytes(size);
    for (std::size_t i = 0; i < size; ++i)
    {
        bytes[i] = static_cast<unsigned char>(i * 37 + 11);
    }
    return bytes;
}

std::size_t textSize(std::size_t size)
{
    return (size + 2) / 3 * 4 + 1;
}

template <typename Encode>
void encodeMany(benchmark::State& state, std::size_t size, const Encode& encode)
{
    const std::vector<unsigned char> bytes = someBytes(size);
    std::vector<char> text(textSize(size));
    const AllocationReport report(state);
    for ([[maybe_unused]] auto iteration : state)
    {
        benchmark::DoNotOptimize(bytes.data());
        encode(bytes, text);
        benchmark::ClobberMemory();
    }
}

void encodeHere(const std::vector<unsigned char>& bytes, std::vector<char>& text)
{
    unsigned long length = 0;
    base64Encode(bytes.data(), bytes.size(), text.data(), text.size(), &length);
    benchmark::DoNotOptimize(length);
}

void encodeByOpenssl(const std::vector<unsigned char>& bytes, std::vector<char>& text)
{
    int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes.data(),
                                 static_cast<int>(bytes.size()));
    benchmark::DoNotOptimize(length);
}

/** Makes the text itself, in a block that its caller releases. */
void encodeByGlib(const std::vector<unsigned char>& bytes, std::vector<char>&)
{
    char* made = g_base64_encode(bytes.data(), bytes.size());
    benchmark::DoNotOptimize(made);
    g_free(made);
}

/* ---- Decoded fields -------------------------------------------------------------------------- */

unsigned char field[16] = {0xEE, 0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF0, 0xEE};

template <typename Number, Number (*decode)(unsigned char*, unsigned long, int, int)>
void decodeMany(benchmark::State& state)
{
    constexpr int width = sizeof(Number);
    const AllocationReport report(state, kRepetitions);
    for ([[maybe_unused]] auto iteration : state)
    {
        KORVANE_REPEAT_64(benchmark::DoNotOptimize(decode(field, sizeof field, 1, width)));
    }
}

template <typename Number> using Decoder = Number (*)(unsigned char*, unsigned long, int, int);

template <typename Number, Decoder<Number> work, Decoder<Number> floor>
void addDecoderRow(const std::string& row)
{
    benchmark::RegisterBenchmark((row + "/work").c_str(), decodeMany<Number, work>);
    benchmark::RegisterBenchmark((row + "/floor").c_str(), decodeMany<Number, floor>);
}

template <typename Number> bool differ(Decoder<Number> work, Decoder<Number> floor)
{
    constexpr int width = sizeof(Number);
    return work(field, sizeof field, 1, width) != floor(field, sizeof field, 1, width);
}

/* ---- The secured form ------------------------------------------------------------------------ */

const char kMac[] = "00:1A:7D:DA:71:13";

void secure(benchmark::State& state)
{
    const std::string mac = kMac;
    const AllocationReport report(state);
    for ([[maybe_unused]] auto iteration : state)
    {
        std::string text = getSecuredString(mac);
        benchmark::DoNotOptimize(&text);
        benchmark::ClobberMemory();
    }
}

/** OpenSSL's encoding in a string of its own size, turned round there. */
std::string secureByHand(const std::string& value)
{
    std::string text(textSize(value.size()), '\0');
    EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                    reinterpret_cast<const unsigned char*>(value.data()),
                    static_cast<int>(value.size()));
    text.pop_back();
    const std::string moved = text.substr(text.size() - 3);
    text.resize(text.size() - 3);
    text.insert(0, moved);
    return text;
}

void secureManyByHand(benchmark::State& state)
{
    const std::string mac = kMac;
    const AllocationReport report(state);
    for ([[maybe_unused]] auto iteration : state)
    {
        // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): the work takes a copy, too
        const std::string value = mac;
        std::string text = secureByHand(value);
        benchmark::DoNotOptimize(&text);
        benchmark::ClobberMemory();
    }
}

} // namespace

void registerTextBenchmarks()
{
    for (const std::size_t size : {6U, 17U, 64U, 1024U, 65536U})
    {
        const auto add = [size](const std::string& name, auto encode)
        {
            benchmark::RegisterBenchmark(name.c_str(), [size, encode](benchmark::State& state)
                                         { encodeMany(state, size, encode); });
        };
        const std::string row = "Base64." + std::to_string(size);
        add(row + ".openssl/work", encodeHere);
        add(row + ".openssl/floor", encodeByOpenssl);
        add(row + ".glib/work", encodeHere);
        add(row + ".glib/floor", encodeByGlib);
    }
    addDecoderRow<std::uint8_t, getUint8FromBytes_C, swappedLoad8>("Decode.1");
    addDecoderRow<std::uint16_t, getUint16FromBytes_C, swappedLoad16>("Decode.2");
    addDecoderRow<std::uint32_t, getUint32FromBytes_C, swappedLoad32>("Decode.4");
    addDecoderRow<std::uint64_t, getUint64FromBytes_C, swappedLoad64>("Decode.8");
    addDecoderRow<std::uint32_t, getUintFromBytes_C, swappedLoad32>("Decode.31bits");
    benchmark::RegisterBenchmark("SecuredForm.17/work", secure);
    benchmark::RegisterBenchmark("SecuredForm.17/floor", secureManyByHand);
}

const char* findTextDifference()
{
    for (std::size_t size = 1; size < 100; ++size)
    {
        const std::vector<unsigned char> bytes = someBytes(size);
        std::vector<char> text(textSize(size));
        std::vector<char> openssl(textSize(size));
        encodeHere(bytes, text);
        encodeByOpenssl(bytes, openssl);
        char* const made = g_base64_encode(bytes.data(), bytes.size());
        const std::string glib = made;
        g_free(made);
        if (text != openssl || glib != text.data())
        {
            return "OpenSSL or GLib encodes something else";
        }
    }
    if (differ<std::uint8_t>(getUint8FromBytes_C, swappedLoad8) ||
        differ<std::uint16_t>(getUint16FromBytes_C, swappedLoad16) ||
        differ<std::uint32_t>(getUint32FromBytes_C, swappedLoad32) ||
        differ<std::uint64_t>(getUint64FromBytes_C, swappedLoad64) ||
        differ<std::uint32_t>(getUintFromBytes_C, swappedLoad32))
    {
        return "a byte-swapped load is another number than the decoded one";
    }
    if (getSecuredString(kMac) != secureByHand(kMac))
    {
        return "the secured form made by hand is another";
    }
    return nullptr;
}
