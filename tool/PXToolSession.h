#ifndef PELLIX_PXTOOLSESSION_H
#define PELLIX_PXTOOLSESSION_H

// What every pxtool command works with: the parsed command line, the open connection handle,
// the output streams, and the shared ways to report results, failures and progress.

#include "PXToolArgs.h"
#include "PXToolText.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>

namespace pxtool {

// Exit status of the tool.
enum ExitCode {
    ExitOk = 0,     // the command did what it was asked
    ExitFailed = 1, // a library call returned a result code other than 0
    ExitUsage = 2,  // bad command line: unknown command or option, unparsable number
    ExitFile = 3,   // a file the tool itself reads or writes cannot be opened, read or written
};

// Block reads and writes are cut into pieces of this size so that progress can be shown, output
// streamed and a stop request honoured; the library cuts them further into requests of 32 KiB.
constexpr std::uint32_t ChunkBytes = 64 * 1024;

struct Session
{
    Arguments args;
    std::string command; // name used in messages
    int handle = -1;
    bool quiet = false;
    bool json = false;     // results as JSON objects on stdout
    bool progress = false; // draw progress bars on stderr
    // Raw data goes to stdout ("-" as an output file): JSON summaries go to stderr instead.
    mutable bool dataOnStdout = false;
    std::FILE* out = stdout;
    std::FILE* err = stderr;
    // Opens the connection; set by the tool for commands that need one. Commands check their
    // arguments first and connect after, so a typo never starts a server.
    std::function<int()> connector;

    const std::string& arg(std::size_t index) const { return args.positional[index]; }

    // Connects once (later calls return at once): ExitOk, or the failure's exit status.
    int open();

    // "pxtool: <command>: error <code>: <text>[ (<detail>)]" on stderr (and, with --json, the
    // same as an object on stdout); returns ExitFailed.
    int fail(unsigned int code, const std::string& detail = {}) const;
    // fail() for a non-zero result; for 0 ExitOk, and with --json an object saying so unless
    // `report` is false (a step of a longer command).
    int check(unsigned int code, const std::string& detail = {}, bool report = true) const;
    // "pxtool: <command>: <message>" and a hint to the help on stderr; returns ExitUsage.
    int usage(const std::string& message) const;
    // "pxtool: <command>: cannot <verb> '<path>': <errno text>" on stderr; returns ExitFile.
    int fileError(const char* verb, const std::string& path, int error) const;
    // A problem of a file's content, "<path>:<line>: <problem>"; returns ExitFile.
    int badFile(const std::string& where, const std::string& problem) const;
    // An informational line on stderr unless quiet.
    void note(const char* format, ...) const __attribute__((format(printf, 2, 3)));

    // One result. Text mode writes `text` to stdout; --json writes the record as one line.
    // Returns ExitOk, or ExitFile when stdout cannot be written (a closed pipe, a full disk).
    int emit(const Record& record, const std::string& text) const;
    // A summary: `text` on stderr unless quiet; with --json the record on stdout (on stderr
    // when stdout carries raw data).
    int summary(const Record& record, const std::string& text) const;
    // A record that starts with the command's name and "ok":true.
    Record record() const;

    // Parses an argument or option value as an unsigned number up to `max`; on failure
    // prints a usage message naming `what` and returns false.
    bool number(const std::string& text, const char* what, std::uint64_t max,
                std::uint64_t* value) const;
    bool u32(const std::string& text, const char* what, std::uint32_t* value) const;
};

// "at 0x00001000", the detail of a failure at an address.
std::string atAddress(std::uint32_t address);

// SIGINT and SIGTERM set a flag instead of ending the process, so that long commands stop
// between two pieces, remove what they left half-written and say how far they got.
void catchStopSignals();
bool stopRequested();

// Progress of one long transfer: draws "label [====>   ]  40%  ...  MiB/s" on stderr at most
// ten times a second when the session wants progress, and measures the elapsed time either
// way. Runs on the caller's thread (the library calls the LOD progress callbacks there).
class Progress
{
public:
    // `show` false keeps the bar off for transfers too small to need one.
    Progress(const Session& session, std::string label, bool show = true);
    ~Progress();

    void update(std::uint64_t done, std::uint64_t total);
    // Draws the final state and ends the line.
    void finish();
    double seconds() const;
    std::uint64_t done() const { return doneBytes; }
    std::uint64_t total() const { return totalBytes; }
    // "<done> of <total>", for a transfer that stopped early.
    std::string howFar() const;

    // Adapter for the library's progress callbacks; userData is the Progress. Asks the library
    // to stop after the piece in flight once a stop signal has arrived.
    static int callback(unsigned long long done, unsigned long long total, void* userData);

private:
    using Clock = std::chrono::steady_clock;
    void draw();

    std::FILE* err;
    bool enabled;
    bool drawn = false;
    bool finished = false;
    std::string label;
    std::uint64_t doneBytes = 0;
    std::uint64_t totalBytes = 0;
    Clock::time_point start;
    Clock::time_point lastDraw;
};

// Milliseconds since 1970-01-01 UTC.
std::int64_t wallClockMs();

} // namespace pxtool

#endif
