#pragma once

#include <QByteArray>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

/** Ends the fuzzer with the input at hand, which it keeps, if a property does not hold. */
inline void check(bool holds, const char *property)
{
    if (holds)
        return;
    std::fprintf(stderr, "does not hold: %s\n", property);
    std::abort();
}

/** The fuzzer's bytes, which stay its own. */
inline QByteArray inputBytes(const std::uint8_t *data, std::size_t size)
{
    return QByteArray(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);
