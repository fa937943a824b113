#include "PXToolSession.h"

#include <pellix/api/PXLLibraryApi.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>

namespace pxtool {

namespace {

volatile std::sig_atomic_t gStopRequested = 0;

void onStopSignal(int)
{
    gStopRequested = 1;
}

} // namespace

void catchStopSignals()
{
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool stopRequested()
{
    return gStopRequested != 0;
}

int Session::open()
{
    if (handle > 0 || !connector)
        return ExitOk;
    return connector();
}

Record Session::record() const
{
    Record r;
    r.text("command", command).flag("ok", true);
    return r;
}

int Session::fail(unsigned int code, const std::string& detail) const
{
    std::fprintf(err, "pxtool: %s: error %u: %s%s%s%s\n", command.c_str(), code,
                 PXST_ResultText(code), detail.empty() ? "" : " (", detail.c_str(),
                 detail.empty() ? "" : ")");
    if (json) {
        Record r;
        r.text("command", command)
            .flag("ok", false)
            .number("exit", ExitFailed)
            .number("code", code)
            .text("error", PXST_ResultText(code));
        if (!detail.empty())
            r.text("detail", detail);
        std::fprintf(out, "%s\n", r.json().c_str());
        std::fflush(out);
    }
    return ExitFailed;
}

int Session::check(unsigned int code, const std::string& detail, bool report) const
{
    if (code)
        return fail(code, detail);
    return json && report ? emit(record(), {}) : int(ExitOk);
}

namespace {

// With --json a failure of the tool itself is an object too: exit status and message.
void jsonFailure(const Session& session, int exitCode, const std::string& message)
{
    if (!session.json)
        return;
    Record r;
    r.text("command", session.command)
        .flag("ok", false)
        .number("exit", unsigned(exitCode))
        .text("error", message);
    std::fprintf(session.out, "%s\n", r.json().c_str());
    std::fflush(session.out);
}

} // namespace

int Session::usage(const std::string& message) const
{
    if (command.empty())
        std::fprintf(err, "pxtool: %s\nTry 'pxtool --help'.\n", message.c_str());
    else
        std::fprintf(err, "pxtool: %s: %s\nTry 'pxtool help %s'.\n", command.c_str(),
                     message.c_str(), command.c_str());
    jsonFailure(*this, ExitUsage, message);
    return ExitUsage;
}

int Session::fileError(const char* verb, const std::string& path, int error) const
{
    const std::string message =
        std::string("cannot ") + verb + " '" + path + "': " + std::strerror(error);
    std::fprintf(err, "pxtool: %s: %s\n", command.c_str(), message.c_str());
    jsonFailure(*this, ExitFile, message);
    return ExitFile;
}

int Session::badFile(const std::string& where, const std::string& problem) const
{
    const std::string message = where + ": " + problem;
    std::fprintf(err, "pxtool: %s: %s\n", command.c_str(), message.c_str());
    jsonFailure(*this, ExitFile, message);
    return ExitFile;
}

void Session::note(const char* format, ...) const
{
    if (quiet)
        return;
    std::fprintf(err, "pxtool: %s: ", command.c_str());
    va_list list;
    va_start(list, format);
    std::vfprintf(err, format, list);
    va_end(list);
    std::fputc('\n', err);
    std::fflush(err);
}

int Session::emit(const Record& record, const std::string& text) const
{
    errno = 0;
    if (json)
        std::fprintf(out, "%s\n", record.json().c_str());
    else
        std::fputs(text.c_str(), out);
    if (std::fflush(out) == 0 && !std::ferror(out))
        return ExitOk;
    // The reader has gone or the disk is full: nothing more can be said on stdout.
    const int error = errno ? errno : EIO;
    std::clearerr(out);
    // A reader that has gone (`| head`) needs no message; a full disk does.
    if (error != EPIPE)
        std::fprintf(err, "pxtool: %s: cannot write to standard output: %s\n", command.c_str(),
                     std::strerror(error));
    return ExitFile;
}

int Session::summary(const Record& record, const std::string& text) const
{
    if (json && !dataOnStdout)
        return emit(record, {});
    if (json) {
        std::fprintf(err, "%s\n", record.json().c_str());
        return ExitOk;
    }
    if (!quiet) {
        std::fputs(text.c_str(), err);
        std::fflush(err);
    }
    return ExitOk;
}

bool Session::number(const std::string& text, const char* what, std::uint64_t max,
                     std::uint64_t* value) const
{
    if (parseUnsigned(text, max, value))
        return true;
    char limit[32];
    std::snprintf(limit, sizeof limit, "0x%llX", static_cast<unsigned long long>(max));
    usage(std::string("bad ") + what + " '" + text +
          "': expected a decimal or 0x-prefixed hexadecimal number from 0 to " + limit);
    return false;
}

bool Session::u32(const std::string& text, const char* what, std::uint32_t* value) const
{
    std::uint64_t wide = 0;
    if (!number(text, what, 0xFFFFFFFFu, &wide))
        return false;
    *value = std::uint32_t(wide);
    return true;
}

std::string atAddress(std::uint32_t address)
{
    char text[32];
    std::snprintf(text, sizeof text, "at 0x%08X", unsigned(address));
    return text;
}

Progress::Progress(const Session& session, std::string label, bool show)
    : err(session.err), enabled(session.progress && show), label(std::move(label)),
      start(Clock::now()), lastDraw(start)
{}

Progress::~Progress()
{
    finish();
}

void Progress::update(std::uint64_t done, std::uint64_t total)
{
    doneBytes = done;
    totalBytes = total;
    if (!enabled)
        return;
    const Clock::time_point now = Clock::now();
    if (drawn && now - lastDraw < std::chrono::milliseconds(100) && done < total)
        return;
    lastDraw = now;
    draw();
}

void Progress::finish()
{
    if (finished)
        return;
    finished = true;
    if (!enabled || (!drawn && totalBytes == 0))
        return;
    draw();
    std::fputc('\n', err);
    std::fflush(err);
}

double Progress::seconds() const
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string Progress::howFar() const
{
    return formatSize(doneBytes) + " of " + formatSize(totalBytes);
}

int Progress::callback(unsigned long long done, unsigned long long total, void* userData)
{
    static_cast<Progress*>(userData)->update(done, total);
    return stopRequested() ? 1 : 0;
}

void Progress::draw()
{
    drawn = true;
    const std::string line = progressLine(label, doneBytes, totalBytes, seconds(), 30);
    // "\r" and clear-to-end so a shorter line leaves no tail of the previous one.
    std::fprintf(err, "\r%s\033[K", line.c_str());
    std::fflush(err);
}

std::int64_t wallClockMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

} // namespace pxtool
