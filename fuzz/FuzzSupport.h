#pragma once

// What the fuzz targets share: the application object some readers expect, a
// private folder for the readers that only read by path, and a check that stops
// the run (so the fuzzer keeps the input) when a property of the reader fails.

#include <QString>

#include <cstddef>
#include <cstdint>

namespace fuzz {

// Makes the QCoreApplication once.
void ensureApplication();

// A folder of this process alone, made once with mkdtemp and removed at exit.
const QString &privateFolder();

// Writes DATA into RELATIVEPATH below the private folder (making its folders);
// the file's path.
QString writeFile(const QString &relativePath, const std::uint8_t *data, std::size_t size);

[[noreturn]] void failed(const char *what, const char *file, int line);

}  // namespace fuzz

#define FUZZ_CHECK(condition)                                                                                \
    do {                                                                                                     \
        if (!(condition))                                                                                    \
            fuzz::failed(#condition, __FILE__, __LINE__);                                                    \
    } while (false)
