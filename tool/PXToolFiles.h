#ifndef PELLIX_PXTOOLFILES_H
#define PELLIX_PXTOOLFILES_H

// Files that pxtool reads and writes itself. "-" stands for standard input or output.

#include "PXToolSession.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace pxtool {

// An output written under a temporary name beside its target and renamed over it once
// complete, so that a failed or interrupted command never leaves a truncated file behind (nor
// destroys the file it would have replaced). Targets that are not regular files (/dev/null, a
// pipe) and "-" are written directly. Every write error is reported.
class OutputFile
{
public:
    OutputFile(const Session& session, std::string path);
    ~OutputFile(); // removes the temporary file unless committed
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    int open(); // ExitOk, or ExitFile with the reason printed
    int write(const void* data, std::size_t size);
    int print(const char* format, ...) __attribute__((format(printf, 2, 3)));
    int commit(); // flushes, closes and renames; ExitOk or ExitFile
    bool toStdout() const { return path == "-"; }
    const std::string& name() const { return path; }

private:
    int failed(const char* verb, int error);

    const Session& session;
    std::string path;
    std::string temporary; // empty when writing directly
    std::FILE* file = nullptr;
    bool committed = false;
};

// Reads a whole input ("-" for standard input). Returns ExitOk or ExitFile with the reason.
int readInput(const Session& session, const std::string& path, std::vector<std::uint8_t>* bytes);

} // namespace pxtool

#endif
