// Events and bypass flows: sending, and following what arrives until a count, a time-out, a
// stop signal or the server's end.

#include "PXToolCommands.h"

#include <pellix/api/PXLLibraryApi.h>

#include <algorithm>
#include <functional>

namespace pxtool {

namespace {

// Longest wait of one library call in the follow loops, so that Ctrl-C ends them promptly.
constexpr unsigned int SliceMs = 200;
// A quiet follower pings the server this often to notice that it has gone.
constexpr std::int64_t PingEveryMs = 1000;
// A received bypass packet: a 16-bit length field plus its 3-byte inner header.
constexpr int BypassBufferSize = 65536 + 8;

struct FollowLimits
{
    bool hasCount = false;
    std::uint64_t count = 0;
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
        limits->hasCount = true;
        limits->count = 1;
        limits->hasTimeout = true;
        return session.number(args.value("wait"), "time-out", 0xFFFFFFFFu, &limits->timeoutMs);
    }
    limits->hasCount = args.has("count");
    if (limits->hasCount &&
        !session.number(args.value("count"), "count", 0xFFFFFFFFu, &limits->count))
        return false;
    if (args.has("timeout")) {
        limits->hasTimeout = true;
        return session.number(args.value("timeout"), "time-out", 0xFFFFFFFFu, &limits->timeoutMs);
    }
    return true;
}

// Calls `takeOne(waitMs)` until `limits.count` items came (result 0), the time-out passed, a
// stop signal arrived, or the server stopped answering. `noItemCode` is the result that means
// "nothing arrived in time". A time-out before the count is reached fails with that code; a
// stop signal ends quietly. `takeOne` returns an exit status in `*status` when printing failed.
int followLoop(const Session& session, const FollowLimits& limits, unsigned int noItemCode,
               const std::function<unsigned int(unsigned int, int*)>& takeOne)
{
    using namespace std::chrono;
    catchStopSignals();
    const steady_clock::time_point start = steady_clock::now();
    steady_clock::time_point lastSign = start;
    std::uint64_t received = 0;
    while (!stopRequested() && (!limits.hasCount || received < limits.count)) {
        const steady_clock::time_point now = steady_clock::now();
        const auto elapsed = duration_cast<milliseconds>(now - start).count();
        unsigned int waitMs = SliceMs;
        if (limits.hasTimeout) {
            if (std::uint64_t(elapsed) >= limits.timeoutMs)
                break;
            waitMs = unsigned(std::min<std::uint64_t>(waitMs, limits.timeoutMs - elapsed));
        }
        if (duration_cast<milliseconds>(now - lastSign).count() >= PingEveryMs) {
            if (const unsigned int result = PXST_Ping(session.handle))
                return session.fail(result, "the server has gone");
            lastSign = now;
        }
        int status = ExitOk;
        const unsigned int result = takeOne(waitMs, &status);
        if (status)
            return status;
        if (result == 0) {
            ++received;
            lastSign = steady_clock::now();
        } else if (result != noItemCode) {
            return session.fail(result);
        }
    }
    if (!stopRequested() && limits.hasCount && received < limits.count) {
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

// A record that starts with the arrival time: {"command":..,"time":<ms>,"utc":"<ISO time>"}.
Record arrival(const Session& session, std::string* textStamp)
{
    const std::int64_t now = wallClockMs();
    *textStamp = std::to_string(now) + " " + isoTime(now);
    return session.record().number("time", std::uint64_t(now)).text("utc", isoTime(now));
}

// "<ms since 1970> <ISO time> flow 0xFF <n> byte(s): <hex>" for one stored bypass packet, as
// PXST_BypassWaitPacket delivers it: start byte, 16-bit length, flow id, data, checksum.
int printBypassPacket(const Session& session, unsigned char flow, const unsigned char* packet,
                      int length)
{
    std::string stamp;
    Record r = arrival(session, &stamp);
    r.number("flow", flow);
    char head[32];
    std::snprintf(head, sizeof head, " flow 0x%02X ", unsigned(flow));
    if (length < 5) {
        const std::string bytes = hexBytes(packet, std::size_t(length));
        return session.emit(r.text("malformed", bytes),
                            stamp + head + "malformed packet: " + bytes + "\n");
    }
    const unsigned char* data = packet + 4;
    const int size = length - 5;
    unsigned char checksum = flow;
    for (int i = 0; i < size; ++i)
        checksum ^= data[i];
    const bool good = checksum == packet[length - 1];
    const std::string bytes = hexBytes(data, std::size_t(size));
    r.number("size", unsigned(size)).text("data", bytes).flag("checksum", good);
    return session.emit(r, stamp + head + std::to_string(size) + " byte(s): " + bytes +
                               (good ? "\n" : " (bad checksum)\n"));
}

int printEvent(const Session& session, unsigned int event)
{
    std::string stamp;
    const Record r = arrival(session, &stamp).number("event", event);
    char value[16];
    std::snprintf(value, sizeof value, " 0x%08X\n", event);
    return session.emit(r, stamp + value);
}

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
    const int status =
        followLoop(session, limits, PXST_RESULT_NO_EVENT, [&](unsigned int ms, int* printed) {
            unsigned int event = 0;
            const unsigned int r = PXST_WaitEvent(session.handle, &event, ms);
            if (r == 0)
                *printed = printEvent(session, event);
            return r;
        });
    PXST_EnableEvents(session.handle, 0);
    return status;
}

int waitBypass(Session& session, const FollowLimits& limits)
{
    std::vector<unsigned char> buffer(BypassBufferSize);
    return followLoop(session, limits, PXST_RESULT_NO_PACKET, [&](unsigned int ms, int* printed) {
        unsigned char flow = 0;
        int length = 0;
        const unsigned int r = PXST_BypassWaitPacket(session.handle, &flow, buffer.data(),
                                                     int(buffer.size()), &length, ms);
        if (r == 0)
            *printed = printBypassPacket(session, flow, buffer.data(), length);
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
    if (!session.number(session.arg(0), "flow id", 0xFF, &flow))
        return ExitUsage;
    std::vector<std::uint8_t> data;
    if (session.args.positional.size() > 1 && !parseHexBytes(session.arg(1), &data))
        return session.usage("bad data '" + session.arg(1) +
                             "': expected hexadecimal bytes such as '01 02 ff'");
    FollowLimits echo;
    const bool wantEcho = session.args.has("echo");
    if (wantEcho) {
        echo.hasCount = true;
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
    const unsigned int result =
        PXST_BypassSendPacket(session.handle, int(flow), data.data(), int(data.size()));
    if (result || !wantEcho)
        return session.check(result);
    return waitBypass(session, echo);
}

const OptionDef CountOption{"count", "N", "stop after N arrivals (0: enable, then stop at once)"};
const OptionDef TimeoutOption{"timeout", "MS",
                              "stop after MS milliseconds (an error if --count is not reached)"};
const OptionDef WaitOption{"wait", "MS", "wait at most MS milliseconds for one arrival"};

} // namespace

std::vector<Command> followCommands()
{
    return {
        {"events",
         "",
         "enable events and print them as they come",
         "Enables events and prints each as '<ms since 1970> <UTC time> 0xNNNNNNNN' until\n"
         "Ctrl-C, --count or --timeout; --wait MS waits for exactly one. Without events within\n"
         "the time the result is 19. A server that stops answering ends it with an error.",
         cmdEvents,
         {WaitOption, CountOption, TimeoutOption}},
        {"bypass-send",
         "FLOW [HEX]",
         "send a bypass packet",
         "Sends the bytes HEX (none when left out) as one bypass packet on flow FLOW (0 to\n"
         "0xFF). With --echo MS, subscribes to FLOW first and prints the first packet that\n"
         "comes back on it within MS milliseconds.",
         cmdBypassSend,
         {{"echo", "MS", "wait up to MS ms for a packet on FLOW and print it"}}},
        {"bypass-listen",
         "FLOW...",
         "print bypass packets of chosen flows",
         "Subscribes to the flow ids given (separate arguments or comma lists) and prints each\n"
         "packet as '<ms since 1970> <UTC time> flow 0xNN <n> byte(s): <hex>' until Ctrl-C,\n"
         "--count or --timeout; --wait MS waits for exactly one. A server that stops\n"
         "answering ends it with an error.",
         cmdBypassListen,
         {WaitOption, CountOption, TimeoutOption}},
    };
}

} // namespace pxtool
