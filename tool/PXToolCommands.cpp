#include "PXToolCommands.h"

#include "PXToolText.h"

#include <pellix/api/PXLLibraryApi.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>

namespace pxtool {

namespace {

// Block reads and writes are cut into pieces of this size so that progress can be shown and
// output streamed; the library cuts them further into requests of 32 KiB.
constexpr std::uint32_t ChunkBytes = 64 * 1024;
// Longest wait of one library call in the follow loops, so that Ctrl-C ends them promptly.
constexpr unsigned int SliceMs = 200;
// A received bypass packet: a 16-bit length field plus its 3-byte inner header.
constexpr int BypassBufferSize = 65536 + 8;

volatile std::sig_atomic_t gStopRequested = 0;

void onStopSignal(int)
{
    gStopRequested = 1;
}

// The follow loops end cleanly on SIGINT and SIGTERM instead of dying mid-request.
void catchStopSignals()
{
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

const std::string& argument(const Session& session, std::size_t index)
{
    return session.args.positional[index];
}

// A summary line on stdout, left out with --quiet.
void report(const Session& session, const char* format, ...) __attribute__((format(printf, 2, 3)));
void report(const Session& session, const char* format, ...)
{
    if (session.quiet)
        return;
    va_list list;
    va_start(list, format);
    std::vfprintf(session.out, format, list);
    va_end(list);
    std::fflush(session.out);
}

std::string atAddress(std::uint32_t address)
{
    char text[32];
    std::snprintf(text, sizeof text, "at 0x%08X", unsigned(address));
    return text;
}

// Reads a whole file of the tool's own (mask files). Returns 0 or an errno value.
int readWholeFile(const std::string& path, std::vector<std::uint8_t>* bytes)
{
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (!file)
        return errno;
    std::vector<std::uint8_t> data;
    std::uint8_t buffer[4096];
    std::size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0)
        data.insert(data.end(), buffer, buffer + n);
    const int error = std::ferror(file) ? (errno ? errno : EIO) : 0;
    std::fclose(file);
    if (!error)
        bytes->swap(data);
    return error;
}

// ---- follow loops (events, bypass) ------------------------------------------------------

struct FollowLimits
{
    std::uint64_t count = 0; // 0: no limit
    bool hasTimeout = false;
    std::uint64_t timeoutMs = 0;
};

// --count N, --timeout MS, and --wait MS (one item within MS).
bool parseFollowLimits(const Session& session, FollowLimits* limits)
{
    const Arguments& args = session.args;
    if (args.has("wait") && (args.has("count") || args.has("timeout"))) {
        session.usage("--wait cannot be combined with --count or --timeout");
        return false;
    }
    if (args.has("wait")) {
        limits->count = 1;
        limits->hasTimeout = true;
        return session.number(args.value("wait"), "time-out", 0xFFFFFFFFu, &limits->timeoutMs);
    }
    if (args.has("count") &&
        !session.number(args.value("count"), "count", 0xFFFFFFFFu, &limits->count))
        return false;
    if (args.has("timeout")) {
        limits->hasTimeout = true;
        return session.number(args.value("timeout"), "time-out", 0xFFFFFFFFu, &limits->timeoutMs);
    }
    return true;
}

// Calls `takeOne(waitMs)` until `limits.count` items came (result 0), the time-out passed, or
// SIGINT/SIGTERM arrived. `noItemCode` is the result that means "nothing arrived in time".
// A time-out before the count is reached fails with that code; a stop signal ends quietly.
int followLoop(const Session& session, const FollowLimits& limits, unsigned int noItemCode,
               const std::function<unsigned int(unsigned int)>& takeOne)
{
    using Clock = std::chrono::steady_clock;
    catchStopSignals();
    const Clock::time_point start = Clock::now();
    std::uint64_t received = 0;
    while (!gStopRequested && (limits.count == 0 || received < limits.count)) {
        unsigned int waitMs = SliceMs;
        if (limits.hasTimeout) {
            const auto elapsed =
                std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
            if (std::uint64_t(elapsed) >= limits.timeoutMs)
                break;
            waitMs = unsigned(std::min<std::uint64_t>(waitMs, limits.timeoutMs - elapsed));
        }
        const unsigned int result = takeOne(waitMs);
        if (result == 0)
            ++received;
        else if (result != noItemCode)
            return session.fail(result);
    }
    if (!gStopRequested && limits.count != 0 && received < limits.count) {
        char detail[64];
        std::snprintf(detail, sizeof detail, "%llu of %llu received in %llu ms",
                      static_cast<unsigned long long>(received),
                      static_cast<unsigned long long>(limits.count),
                      static_cast<unsigned long long>(limits.timeoutMs));
        return session.fail(noItemCode, detail);
    }
    return ExitOk;
}

// Parses "0x21", "33" or a list "0x21,0x22" of bypass flow ids.
bool parseFlowIds(const Session& session, const std::vector<std::string>& texts,
                  std::vector<unsigned char>* ids)
{
    for (const std::string& text : texts) {
        std::size_t start = 0;
        while (start <= text.size()) {
            std::size_t end = text.find(',', start);
            if (end == std::string::npos)
                end = text.size();
            std::uint64_t id = 0;
            if (!session.number(text.substr(start, end - start), "flow id", 0xFF, &id))
                return false;
            ids->push_back(static_cast<unsigned char>(id));
            start = end + 1;
        }
    }
    return true;
}

// "<ms since 1970> <ISO time> flow 0xFF <n> byte(s): <hex>" for one stored bypass packet, as
// PXST_BypassWaitPacket delivers it: start byte, 16-bit length, flow id, data, checksum.
void printBypassPacket(const Session& session, unsigned char flow, const unsigned char* packet,
                       int length)
{
    const std::int64_t now = wallClockMs();
    std::fprintf(session.out, "%lld %s flow 0x%02X ", static_cast<long long>(now),
                 isoTime(now).c_str(), unsigned(flow));
    if (length < 5) {
        std::fprintf(session.out, "malformed packet: %s\n",
                     hexBytes(packet, std::size_t(length)).c_str());
        std::fflush(session.out);
        return;
    }
    const unsigned char* data = packet + 4;
    const int size = length - 5;
    unsigned char checksum = flow;
    for (int i = 0; i < size; ++i)
        checksum ^= data[i];
    std::fprintf(session.out, "%d byte(s): %s%s\n", size, hexBytes(data, std::size_t(size)).c_str(),
                 checksum == packet[length - 1] ? "" : " (bad checksum)");
    std::fflush(session.out);
}

// ---- server control ------------------------------------------------------------------------

int cmdPing(Session& session)
{
    if (const int status = session.open())
        return status;
    const auto start = std::chrono::steady_clock::now();
    const unsigned int result = PXST_Ping(session.handle);
    if (result)
        return session.fail(result);
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    std::fprintf(session.out, "reply in %.2f ms\n", ms);
    return ExitOk;
}

int cmdStatus(Session& session)
{
    if (const int status = session.open())
        return status;
    unsigned int status = 0;
    const unsigned int result = PXST_PellixStatus(session.handle, &status);
    if (result)
        return session.fail(result);
    std::fprintf(session.out, "%u\n", status);
    return ExitOk;
}

int checked(const Session& session, unsigned int result)
{
    return result ? session.fail(result) : int(ExitOk);
}

int cmdKill(Session& session)
{
    if (const int status = session.open())
        return status;
    return checked(session, PXST_KillPellix(session.handle));
}

int cmdClean(Session& session)
{
    if (const int status = session.open())
        return status;
    return checked(session, PXST_PellixClean(session.handle));
}

int cmdFlush(Session& session)
{
    if (const int status = session.open())
        return status;
    return checked(session, PXST_PellixFlushFifos(session.handle));
}

int cmdReconnect(Session& session)
{
    if (const int status = session.open())
        return status;
    return checked(session, PXST_ForcePellixReconnection(&session.handle));
}

int cmdBreak(Session& session)
{
    if (const int status = session.open())
        return status;
    return checked(session, PXST_ComBreak(session.handle));
}

int cmdAutoBaud(Session& session)
{
    if (const int status = session.open())
        return status;
    return checked(session, PXST_LaunchTargetAutoBauding(session.handle));
}

int cmdFlowMode(Session& session)
{
    const int mode = parseFlowMode(argument(session, 0));
    if (mode < 0)
        return session.usage("bad flow mode '" + argument(session, 0) +
                             "': expected none, hardware or xonxoff");
    if (const int status = session.open())
        return status;
    return checked(session, PXST_ChangeFlowMode(session.handle, static_cast<PXLFlowMode>(mode)));
}

int cmdUsbId(Session& session)
{
    std::uint64_t first = 0;
    std::uint64_t second = 0;
    if (!session.number(argument(session, 0), "first USB id", 0xFFFF, &first) ||
        !session.number(argument(session, 1), "second USB id", 0xFFFF, &second))
        return ExitUsage;
    if (const int status = session.open())
        return status;
    return checked(session, PXST_SpecifyUSBIdPolicy(session.handle, int(first), int(second)));
}

// ---- single values -------------------------------------------------------------------------

enum class Access { Byte, Half, Word, Internal };

int width(Access access)
{
    return access == Access::Half ? 2 : access == Access::Word ? 4 : 1;
}

int readValue(Session& session, Access access)
{
    std::uint32_t address = 0;
    if (!session.u32(argument(session, 0), "address", &address))
        return ExitUsage;
    if (const int status = session.open())
        return status;
    unsigned int result = 0;
    std::uint32_t value = 0;
    switch (access) {
    case Access::Byte:
    case Access::Internal: {
        unsigned char byte = 0;
        result = access == Access::Byte ? PXST_Read8(session.handle, address, &byte)
                                        : PXST_ReadInternal(session.handle, address, &byte);
        value = byte;
        break;
    }
    case Access::Half: {
        unsigned short half = 0;
        result = PXST_Read16(session.handle, address, &half);
        value = half;
        break;
    }
    case Access::Word:
        result = PXST_Read32(session.handle, address, &value);
        break;
    }
    if (result)
        return session.fail(result, atAddress(address));
    std::fprintf(session.out, "0x%0*X\n", width(access) * 2, unsigned(value));
    return ExitOk;
}

int writeValue(Session& session, Access access)
{
    std::uint32_t address = 0;
    std::uint64_t value = 0;
    const std::uint64_t max = width(access) == 4 ? 0xFFFFFFFFu : width(access) == 2 ? 0xFFFF : 0xFF;
    if (!session.u32(argument(session, 0), "address", &address) ||
        !session.number(argument(session, 1), "value", max, &value))
        return ExitUsage;
    if (const int status = session.open())
        return status;
    unsigned int result = 0;
    const unsigned int v = unsigned(value);
    switch (access) {
    case Access::Byte:
        result = PXST_Write8(session.handle, address, v);
        break;
    case Access::Half:
        result = PXST_Write16(session.handle, address, v);
        break;
    case Access::Word:
        result = PXST_Write32(session.handle, address, v);
        break;
    case Access::Internal:
        result = PXST_WriteInternal(session.handle, address, v);
        break;
    }
    return result ? session.fail(result, atAddress(address)) : int(ExitOk);
}

int cmdRead8(Session& session)
{
    return readValue(session, Access::Byte);
}
int cmdRead16(Session& session)
{
    return readValue(session, Access::Half);
}
int cmdRead32(Session& session)
{
    return readValue(session, Access::Word);
}
int cmdReadInternal(Session& session)
{
    return readValue(session, Access::Internal);
}
int cmdWrite8(Session& session)
{
    return writeValue(session, Access::Byte);
}
int cmdWrite16(Session& session)
{
    return writeValue(session, Access::Half);
}
int cmdWrite32(Session& session)
{
    return writeValue(session, Access::Word);
}
int cmdWriteInternal(Session& session)
{
    return writeValue(session, Access::Internal);
}

// ---- blocks --------------------------------------------------------------------------------

int cmdRead(Session& session)
{
    std::uint32_t address = 0;
    std::uint32_t size = 0;
    if (!session.u32(argument(session, 0), "address", &address) ||
        !session.u32(argument(session, 1), "size", &size))
        return ExitUsage;
    if (const int status = session.open())
        return status;
    const bool toFile = session.args.has("out");
    std::FILE* file = nullptr;
    if (toFile) {
        file = std::fopen(session.args.value("out").c_str(), "wb");
        if (!file)
            return session.fileError("create", session.args.value("out"), errno);
    }
    // A bar between the lines of a hex dump on the same terminal would only garble both.
    const bool showProgress = size > ChunkBytes && (toFile || !isatty(STDOUT_FILENO));
    Progress progress(session, "read", showProgress);
    std::vector<std::uint8_t> buffer(std::min(size, ChunkBytes));
    int status = ExitOk;
    for (std::uint32_t done = 0; done < size && status == ExitOk;) {
        const std::uint32_t n = std::min(ChunkBytes, size - done);
        const std::uint32_t at = address + done;
        const unsigned int result = PXST_ReadBlock(session.handle, at, buffer.data(), n);
        if (result) {
            progress.finish();
            status = session.fail(result, atAddress(at));
            break;
        }
        if (toFile) {
            if (std::fwrite(buffer.data(), 1, n, file) != n)
                status = session.fileError("write", session.args.value("out"), errno);
        } else {
            std::fputs(hexDump(at, buffer.data(), n).c_str(), session.out);
        }
        done += n;
        progress.update(done, size);
    }
    progress.finish();
    if (file && std::fclose(file) != 0 && status == ExitOk)
        status = session.fileError("write", session.args.value("out"), errno);
    if (status == ExitOk && toFile)
        report(session, "read: %s in %.2f s (%s)\n", formatSize(size).c_str(), progress.seconds(),
               formatRate(size, progress.seconds()).c_str());
    return status;
}

// Writes `size` bytes from `source` (a file) or from `data` (when source is null).
int writeBlockFrom(Session& session, std::uint32_t address, std::FILE* source,
                   const std::string& sourceName, std::uint64_t size,
                   const std::vector<std::uint8_t>& data)
{
    if (const int status = session.open())
        return status;
    Progress progress(session, "write", size > ChunkBytes);
    std::vector<unsigned int> words(ChunkBytes / 4);
    for (std::uint64_t done = 0; done < size;) {
        const std::uint32_t n = std::uint32_t(std::min<std::uint64_t>(ChunkBytes, size - done));
        if (source) {
            if (std::fread(words.data(), 1, n, source) != n) {
                progress.finish();
                return session.fileError("read", sourceName, std::ferror(source) ? errno : EIO);
            }
        } else {
            std::memcpy(words.data(), data.data() + done, n);
        }
        const std::uint32_t at = address + std::uint32_t(done);
        const unsigned int result = PXST_WriteBlock(session.handle, at, words.data(), n);
        if (result) {
            progress.finish();
            return session.fail(result, atAddress(at));
        }
        done += n;
        progress.update(done, size);
    }
    progress.finish();
    if (size > ChunkBytes)
        report(session, "write: %s in %.2f s (%s)\n", formatSize(size).c_str(), progress.seconds(),
               formatRate(size, progress.seconds()).c_str());
    return ExitOk;
}

int cmdWrite(Session& session)
{
    std::uint32_t address = 0;
    if (!session.u32(argument(session, 0), "address", &address))
        return ExitUsage;
    const bool fromFile = session.args.positional.size() == 2;
    if (fromFile == session.args.has("data"))
        return session.usage("give either a FILE or --data HEX");
    if (!fromFile) {
        std::vector<std::uint8_t> data;
        if (!parseHexBytes(session.args.value("data"), &data))
            return session.usage("bad --data '" + session.args.value("data") +
                                 "': expected hexadecimal bytes such as '01 02 ff'");
        return writeBlockFrom(session, address, nullptr, {}, data.size(), data);
    }
    const std::string& path = argument(session, 1);
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (!file)
        return session.fileError("open", path, errno);
    struct stat info;
    if (fstat(fileno(file), &info) != 0 || !S_ISREG(info.st_mode)) {
        std::fclose(file);
        return session.fileError("read", path, EINVAL);
    }
    if (std::uint64_t(info.st_size) > 0xFFFFFFFFu) {
        std::fclose(file);
        return session.usage("'" + path + "' is larger than the 4 GiB address space");
    }
    const int status =
        writeBlockFrom(session, address, file, path, std::uint64_t(info.st_size), {});
    std::fclose(file);
    return status;
}

int cmdReadMasked(Session& session)
{
    std::uint32_t address = 0;
    if (!session.u32(argument(session, 0), "address", &address))
        return ExitUsage;
    if (session.args.has("mask") == session.args.has("mask-file"))
        return session.usage("give either --mask HEX or --mask-file FILE");
    std::vector<std::uint8_t> mask;
    if (session.args.has("mask")) {
        if (!parseHexBytes(session.args.value("mask"), &mask))
            return session.usage("bad --mask '" + session.args.value("mask") +
                                 "': expected hexadecimal bytes such as 'ff ff 00 ff'");
    } else if (const int error = readWholeFile(session.args.value("mask-file"), &mask)) {
        return session.fileError("read", session.args.value("mask-file"), error);
    }
    if (mask.size() > 0xFFFFFFFFu)
        return session.usage("the mask is larger than the 4 GiB address space");
    if (const int status = session.open())
        return status;
    std::vector<std::uint8_t> buffer(mask.size());
    const unsigned int result = PXST_ReadBlockMasked(session.handle, address, buffer.data(),
                                                     unsigned(buffer.size()), mask.data());
    if (result)
        return session.fail(result, atAddress(address));
    if (session.args.has("out")) {
        const std::string path = session.args.value("out");
        std::FILE* file = std::fopen(path.c_str(), "wb");
        if (!file)
            return session.fileError("create", path, errno);
        const bool written = std::fwrite(buffer.data(), 1, buffer.size(), file) == buffer.size();
        if (std::fclose(file) != 0 || !written)
            return session.fileError("write", path, errno);
        return ExitOk;
    }
    std::fputs(hexDump(address, buffer.data(), buffer.size(), mask.data()).c_str(), session.out);
    return ExitOk;
}

// ---- LOD files -----------------------------------------------------------------------------

int lodFailure(const Session& session, unsigned int result, unsigned int failAddress,
               const std::string& path)
{
    if (result == PXST_RESULT_MISMATCH)
        return session.fail(result, "first difference " + atAddress(failAddress));
    return session.fail(result, path);
}

int verifyFile(Session& session, const std::string& path)
{
    if (const int status = session.open())
        return status;
    unsigned int failAddress = 0;
    Progress progress(session, "verify");
    const unsigned int result = PXST_VerifyLodProgress(session.handle, path.c_str(), &failAddress,
                                                       Progress::callback, &progress);
    progress.finish();
    if (result)
        return lodFailure(session, result, failAddress, path);
    report(session, "verify: %s: %s match in %.2f s (%s)\n", path.c_str(),
           formatSize(progress.done()).c_str(), progress.seconds(),
           formatRate(progress.done(), progress.seconds()).c_str());
    return ExitOk;
}

int cmdLoad(Session& session)
{
    if (const int status = session.open())
        return status;
    const std::string& path = argument(session, 0);
    Progress progress(session, "load");
    const unsigned int result = PXST_LoadLodProgress(session.handle, path.c_str(), 0, nullptr,
                                                     Progress::callback, &progress);
    progress.finish();
    if (result)
        return lodFailure(session, result, 0, path);
    report(session, "load: %s: %s written in %.2f s (%s)\n", path.c_str(),
           formatSize(progress.done()).c_str(), progress.seconds(),
           formatRate(progress.done(), progress.seconds()).c_str());
    return session.args.has("verify") ? verifyFile(session, path) : int(ExitOk);
}

int cmdVerify(Session& session)
{
    return verifyFile(session, argument(session, 0));
}

int cmdDump(Session& session)
{
    std::uint32_t address = 0;
    std::uint64_t words = 0;
    // The byte count of the read must fit the 32-bit size of a block call.
    if (!session.u32(argument(session, 0), "address", &address) ||
        !session.number(argument(session, 1), "word count", 0x3FFFFFFF, &words))
        return ExitUsage;
    if (const int status = session.open())
        return status;
    const std::string& path = argument(session, 2);
    const bool binary = session.args.has("binary");
    Progress progress(session, "dump");
    const unsigned int result =
        PXST_DumpLodProgress(session.handle, path.c_str(), address, unsigned(words), binary ? 1 : 0,
                             Progress::callback, &progress);
    progress.finish();
    if (result)
        return session.fail(result, result == PXST_RESULT_FILE ? path : atAddress(address));
    report(session, "dump: %s: %s read in %.2f s (%s)\n", path.c_str(),
           formatSize(words * 4).c_str(), progress.seconds(),
           formatRate(words * 4, progress.seconds()).c_str());
    return ExitOk;
}

// ---- events and bypass ---------------------------------------------------------------------

int cmdEvents(Session& session)
{
    FollowLimits limits;
    if (!parseFollowLimits(session, &limits))
        return ExitUsage;
    if (const int status = session.open())
        return status;
    unsigned int result = PXST_EnableEvents(session.handle, 1);
    if (result)
        return session.fail(result);
    // The ping's reply proves the server has taken the request before "waiting" is printed.
    if ((result = PXST_Ping(session.handle)) != 0)
        return session.fail(result);
    session.note("events enabled, waiting");
    const int status = followLoop(session, limits, PXST_RESULT_NO_EVENT, [&](unsigned int ms) {
        unsigned int event = 0;
        const unsigned int r = PXST_WaitEvent(session.handle, &event, ms);
        if (r == 0) {
            const std::int64_t now = wallClockMs();
            std::fprintf(session.out, "%lld %s 0x%08X\n", static_cast<long long>(now),
                         isoTime(now).c_str(), event);
            std::fflush(session.out);
        }
        return r;
    });
    PXST_EnableEvents(session.handle, 0);
    return status;
}

int waitBypass(Session& session, const FollowLimits& limits)
{
    std::vector<unsigned char> buffer(BypassBufferSize);
    return followLoop(session, limits, PXST_RESULT_NO_PACKET, [&](unsigned int ms) {
        unsigned char flow = 0;
        int length = 0;
        const unsigned int r = PXST_BypassWaitPacket(session.handle, &flow, buffer.data(),
                                                     int(buffer.size()), &length, ms);
        if (r == 0)
            printBypassPacket(session, flow, buffer.data(), length);
        return r;
    });
}

int cmdBypassListen(Session& session)
{
    FollowLimits limits;
    std::vector<unsigned char> ids;
    if (!parseFollowLimits(session, &limits) ||
        !parseFlowIds(session, session.args.positional, &ids))
        return ExitUsage;
    if (const int status = session.open())
        return status;
    unsigned int result = PXST_BypassEnable(session.handle, ids.data(), int(ids.size()));
    if (result)
        return session.fail(result);
    if ((result = PXST_Ping(session.handle)) != 0)
        return session.fail(result);
    session.note("listening on %zu flow(s)", ids.size());
    return waitBypass(session, limits);
}

int cmdBypassSend(Session& session)
{
    std::uint64_t flow = 0;
    if (!session.number(argument(session, 0), "flow id", 0xFF, &flow))
        return ExitUsage;
    std::vector<std::uint8_t> data;
    if (session.args.positional.size() > 1 && !parseHexBytes(argument(session, 1), &data))
        return session.usage("bad data '" + argument(session, 1) +
                             "': expected hexadecimal bytes such as '01 02 ff'");
    FollowLimits echo;
    const bool wantEcho = session.args.has("echo");
    if (wantEcho) {
        echo.count = 1;
        echo.hasTimeout = true;
        if (!session.number(session.args.value("echo"), "time-out", 0xFFFFFFFFu, &echo.timeoutMs))
            return ExitUsage;
    }
    if (const int status = session.open())
        return status;
    if (wantEcho) {
        unsigned char id = static_cast<unsigned char>(flow);
        // Requests of one connection reach the server in order: the subscription is in place
        // before the packet whose echo it is meant to catch.
        if (const unsigned int result = PXST_BypassEnable(session.handle, &id, 1))
            return session.fail(result);
    }
    if (const unsigned int result =
            PXST_BypassSendPacket(session.handle, int(flow), data.data(), int(data.size())))
        return session.fail(result);
    return wantEcho ? waitBypass(session, echo) : int(ExitOk);
}

} // namespace

// ---- the table -----------------------------------------------------------------------------

namespace {

const OptionDef OutOption{"out", "FILE", "write the raw bytes to FILE instead of a hex dump"};
const OptionDef CountOption{"count", "N", "stop after N arrivals"};
const OptionDef TimeoutOption{"timeout", "MS",
                              "stop after MS milliseconds (an error if --count is not reached)"};
const OptionDef WaitOption{"wait", "MS", "wait at most MS milliseconds for one arrival"};

} // namespace

const std::vector<Command>& commands()
{
    static const std::vector<Command> table = {
        {"ping",
         "",
         "check that the server answers",
         "Sends a ping and prints the time its reply took.",
         {},
         0,
         0,
         Connect::StartServer,
         cmdPing},
        {"status",
         "",
         "print the server's status (1 or 0)",
         "Asks the server for its status byte and prints 1 when it is not zero, else 0.",
         {},
         0,
         0,
         Connect::StartServer,
         cmdStatus},
        {"read8",
         "ADDRESS",
         "read one byte",
         "Reads one byte and prints it as 0xNN.",
         {},
         1,
         1,
         Connect::StartServer,
         cmdRead8},
        {"read16",
         "ADDRESS",
         "read 16 bits",
         "Reads a 16-bit value (least significant byte at ADDRESS) and prints it as 0xNNNN.",
         {},
         1,
         1,
         Connect::StartServer,
         cmdRead16},
        {"read32",
         "ADDRESS",
         "read 32 bits",
         "Reads a 32-bit value (least significant byte at ADDRESS) and prints it as 0xNNNNNNNN.",
         {},
         1,
         1,
         Connect::StartServer,
         cmdRead32},
        {"read-internal",
         "ADDRESS",
         "read one byte of the internal space",
         "Reads one byte of the target's internal space and prints it as 0xNN.",
         {},
         1,
         1,
         Connect::StartServer,
         cmdReadInternal},
        {"read",
         "ADDRESS SIZE",
         "read a block (hex dump or raw file)",
         "Reads SIZE bytes from ADDRESS upwards and prints a hex dump, or writes the raw bytes\n"
         "to a file with --out.",
         {OutOption},
         2,
         2,
         Connect::StartServer,
         cmdRead},
        {"read-masked",
         "ADDRESS",
         "read the bytes a mask selects",
         "Reads only the bytes whose mask byte is ff; the mask's length is the size of the\n"
         "range. Unselected bytes are never accessed: they print as -- in the hex dump and\n"
         "are written as 0 with --out.",
         {{"mask", "HEX", "the mask as hexadecimal bytes, e.g. 'ff ff 00 ff'"},
          {"mask-file", "FILE", "the mask as a raw file, one byte per target byte"},
          OutOption},
         1,
         1,
         Connect::StartServer,
         cmdReadMasked},
        {"write8",
         "ADDRESS VALUE",
         "write one byte",
         "Writes one byte (0 to 0xFF).",
         {},
         2,
         2,
         Connect::StartServer,
         cmdWrite8},
        {"write16",
         "ADDRESS VALUE",
         "write 16 bits",
         "Writes a 16-bit value (0 to 0xFFFF).",
         {},
         2,
         2,
         Connect::StartServer,
         cmdWrite16},
        {"write32",
         "ADDRESS VALUE",
         "write 32 bits",
         "Writes a 32-bit value. On the pellix simulator, writing to its event register\n"
         "(0xFFFFFF00 unless configured) raises event VALUE.",
         {},
         2,
         2,
         Connect::StartServer,
         cmdWrite32},
        {"write-internal",
         "ADDRESS VALUE",
         "write one byte of the internal space",
         "Writes one byte (0 to 0xFF) to the target's internal space.",
         {},
         2,
         2,
         Connect::StartServer,
         cmdWriteInternal},
        {"write",
         "ADDRESS [FILE]",
         "write a block from a file or hex bytes",
         "Writes the raw bytes of FILE, or the bytes given with --data, from ADDRESS upwards.",
         {{"data", "HEX", "the bytes to write, e.g. '01 02 ff'"}},
         1,
         2,
         Connect::StartServer,
         cmdWrite},
        {"load",
         "FILE",
         "load a LOD file into the target",
         "Writes every packet of the LOD file FILE to the target (packets at 0xF0000000 are\n"
         "skipped), then with --verify reads them back and compares.",
         {{"verify", nullptr, "verify the target against the file after loading"}},
         1,
         1,
         Connect::StartServer,
         cmdLoad},
        {"verify",
         "FILE",
         "compare the target with a LOD file",
         "Reads back every packet of the LOD file FILE and compares; a difference fails with\n"
         "result 17 and the address of the first differing word.",
         {},
         1,
         1,
         Connect::StartServer,
         cmdVerify},
        {"dump",
         "ADDRESS WORDS FILE",
         "dump target memory to a LOD or binary file",
         "Reads WORDS 32-bit words from ADDRESS upwards into FILE: one LOD packet, or the raw\n"
         "words (little-endian) with --binary.",
         {{"binary", nullptr, "write raw words instead of LOD text"}},
         3,
         3,
         Connect::StartServer,
         cmdDump},
        {"events",
         "",
         "enable events and print them as they come",
         "Enables events and prints each as '<ms since 1970> <UTC time> 0xNNNNNNNN' until\n"
         "Ctrl-C, --count or --timeout; --wait MS waits for exactly one. Without events within\n"
         "the time the result is 19.",
         {WaitOption, CountOption, TimeoutOption},
         0,
         0,
         Connect::StartServer,
         cmdEvents},
        {"bypass-send",
         "FLOW [HEX]",
         "send a bypass packet",
         "Sends the bytes HEX (none when left out) as one bypass packet on flow FLOW (0 to\n"
         "0xFF). With --echo MS, subscribes to FLOW first and prints the first packet that\n"
         "comes back on it within MS milliseconds.",
         {{"echo", "MS", "wait up to MS ms for a packet on FLOW and print it"}},
         1,
         2,
         Connect::StartServer,
         cmdBypassSend},
        {"bypass-listen",
         "FLOW...",
         "print bypass packets of chosen flows",
         "Subscribes to the flow ids given (separate arguments or comma lists) and prints each\n"
         "packet as '<ms since 1970> <UTC time> flow 0xNN <n> byte(s): <hex>' until Ctrl-C,\n"
         "--count or --timeout; --wait MS waits for exactly one.",
         {WaitOption, CountOption, TimeoutOption},
         1,
         SIZE_MAX,
         Connect::StartServer,
         cmdBypassListen},
        {"kill",
         "",
         "stop the server",
         "Tells the server to exit. Never starts a server: with none listening the result is 11.",
         {},
         0,
         0,
         Connect::NoStart,
         cmdKill},
        {"clean",
         "",
         "clean the server's state",
         "Tells the server to clean its state.",
         {},
         0,
         0,
         Connect::StartServer,
         cmdClean},
        {"flush",
         "",
         "flush the server's buffers",
         "Tells the server to flush its FIFOs.",
         {},
         0,
         0,
         Connect::StartServer,
         cmdFlush},
        {"reconnect",
         "",
         "make the server reconnect to the target",
         "Makes the server reconnect to the target and waits (up to 10 s) for it to finish.",
         {},
         0,
         0,
         Connect::StartServer,
         cmdReconnect},
        {"break",
         "",
         "send a break on the serial link",
         "Sends a break on the server's link.",
         {},
         0,
         0,
         Connect::StartServer,
         cmdBreak},
        {"flow-mode",
         "MODE",
         "set the link's flow control",
         "Sets the flow control of the server's link: none, hardware or xonxoff.",
         {},
         1,
         1,
         Connect::StartServer,
         cmdFlowMode},
        {"usb-id",
         "FIRST SECOND",
         "choose the USB identifiers",
         "Tells the server which USB identifiers (0 to 0xFFFF each) to look for.",
         {},
         2,
         2,
         Connect::StartServer,
         cmdUsbId},
        {"auto-baud",
         "",
         "start auto-bauding on the link",
         "Tells the server to start auto-bauding with the target.",
         {},
         0,
         0,
         Connect::StartServer,
         cmdAutoBaud},
    };
    return table;
}

const Command* findCommand(const std::string& name)
{
    for (const Command& command : commands()) {
        if (name == command.name)
            return &command;
    }
    return nullptr;
}

const std::vector<OptionDef>& globalOptions()
{
    static const std::vector<OptionDef> options = {
        {"port", "N",
         "serial port number of the target; the server listens on 127.0.0.1:7700+N and is\n"
         "started from pxtool's folder when none answers"},
        {"baud", "RATE", "baud rate for a server that pxtool starts (default 921600)"},
        {"flow", "MODE",
         "flow control for a server that pxtool starts: none (default),\n"
         "hardware or xonxoff"},
        {"host", "HOST", "connect to a server at HOST instead (with --tcp-port); starts nothing"},
        {"tcp-port", "PORT", "TCP port of the server (on 127.0.0.1 without --host)"},
        {"no-start", nullptr, "never start a server"},
        {"quiet", nullptr, "no progress bars, notes or summaries (-q)"},
        {"progress", nullptr, "draw progress bars even when stderr is not a terminal"},
        {"help", nullptr, "show help, for the tool or for a command (-h)"},
    };
    return options;
}

namespace {

void printOptions(std::FILE* stream, const std::vector<OptionDef>& options)
{
    for (const OptionDef& option : options) {
        std::string head = std::string("  --") + option.name;
        if (option.valueName)
            head += std::string(" ") + option.valueName;
        std::string help = option.help;
        std::size_t newline = 0;
        while ((newline = help.find('\n', newline)) != std::string::npos)
            help.replace(newline, 1, "\n" + std::string(24, ' ')), newline += 25;
        std::fprintf(stream, "%-23s %s\n", head.c_str(), help.c_str());
    }
}

} // namespace

void printToolHelp(std::FILE* stream)
{
    std::fprintf(stream, "Usage: pxtool [options] <command> [arguments] [command options]\n"
                         "\n"
                         "Reads and writes target memory, loads, verifies and dumps LOD firmware,\n"
                         "follows events and bypass packets, and controls the pellix server.\n"
                         "\n"
                         "Options:\n");
    printOptions(stream, globalOptions());
    std::fprintf(stream, "\nCommands:\n");
    for (const Command& command : commands())
        std::fprintf(stream, "  %-16s %s\n", command.name, command.summary);
    std::fprintf(stream,
                 "\n"
                 "'pxtool help <command>' or 'pxtool <command> --help' describes a command.\n"
                 "Numbers are decimal, or hexadecimal with a 0x prefix.\n"
                 "\n"
                 "Exit status:\n"
                 "  0  success\n"
                 "  1  the library returned a result code; it is printed with its text\n"
                 "  2  bad command line: unknown command or option, unparsable number\n"
                 "  3  a file that pxtool itself reads or writes cannot be opened, read or\n"
                 "     written (files of load, verify and dump are opened by the library: 1)\n"
                 "\n"
                 "Example: pxtool --port 3 load firmware.lod --verify\n");
}

void printCommandHelp(std::FILE* stream, const Command& command)
{
    std::fprintf(stream, "Usage: pxtool [options] %s%s%s%s\n\n%s\n", command.name,
                 *command.synopsis ? " " : "", command.synopsis,
                 command.options.empty() ? "" : " [command options]", command.description);
    if (!command.options.empty()) {
        std::fprintf(stream, "\nCommand options:\n");
        printOptions(stream, command.options);
    }
    std::fprintf(stream, "\nSee 'pxtool --help' for the connection options and exit status.\n");
}

} // namespace pxtool
