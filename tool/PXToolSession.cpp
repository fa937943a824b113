#include "PXToolSession.h"

#include "PXToolText.h"

#include <pellix/api/PXLLibraryApi.h>

#include <cstdarg>
#include <cstring>

namespace pxtool {

int Session::open()
{
    if (handle > 0 || !connector)
        return ExitOk;
    return connector();
}

int Session::fail(unsigned int code, const std::string& detail) const
{
    std::fprintf(err, "pxtool: %s: error %u: %s%s%s%s\n", command.c_str(), code,
                 PXST_ResultText(code), detail.empty() ? "" : " (", detail.c_str(),
                 detail.empty() ? "" : ")");
    return ExitFailed;
}

int Session::usage(const std::string& message) const
{
    if (command.empty())
        std::fprintf(err, "pxtool: %s\nTry 'pxtool --help'.\n", message.c_str());
    else
        std::fprintf(err, "pxtool: %s: %s\nTry 'pxtool help %s'.\n", command.c_str(),
                     message.c_str(), command.c_str());
    return ExitUsage;
}

int Session::fileError(const char* verb, const std::string& path, int error) const
{
    std::fprintf(err, "pxtool: %s: cannot %s '%s': %s\n", command.c_str(), verb, path.c_str(),
                 std::strerror(error));
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

int Progress::callback(unsigned long long done, unsigned long long total, void* userData)
{
    static_cast<Progress*>(userData)->update(done, total);
    return 0;
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
