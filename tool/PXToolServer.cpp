// Server control: ping, status and the commands that are one library call each.

#include "PXToolCommands.h"

#include <pellix/api/PXLLibraryApi.h>

namespace pxtool {

namespace {

// A command that is one call on the handle and prints nothing but its failure.
template <unsigned int (*Call)(int)>
int oneCall(Session& session)
{
    if (const int status = session.open())
        return status;
    return session.check(Call(session.handle));
}

int cmdPing(Session& session)
{
    if (const int status = session.open())
        return status;
    const auto start = std::chrono::steady_clock::now();
    if (const unsigned int result = PXST_Ping(session.handle))
        return session.fail(result);
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    char text[48];
    std::snprintf(text, sizeof text, "reply in %.2f ms\n", ms);
    return session.emit(session.record().real("ms", ms), text);
}

int cmdStatus(Session& session)
{
    if (const int status = session.open())
        return status;
    unsigned int status = 0;
    if (const unsigned int result = PXST_PellixStatus(session.handle, &status))
        return session.fail(result);
    return session.emit(session.record().number("status", status), std::to_string(status) + "\n");
}

int cmdReconnect(Session& session)
{
    if (const int status = session.open())
        return status;
    return session.check(PXST_ForcePellixReconnection(&session.handle));
}

int cmdFlowMode(Session& session)
{
    const int mode = parseFlowMode(session.arg(0));
    if (mode < 0)
        return session.usage("bad flow mode '" + session.arg(0) +
                             "': expected none, hardware or xonxoff");
    if (const int status = session.open())
        return status;
    return session.check(PXST_ChangeFlowMode(session.handle, static_cast<PXLFlowMode>(mode)));
}

int cmdUsbId(Session& session)
{
    std::uint64_t first = 0;
    std::uint64_t second = 0;
    if (!session.number(session.arg(0), "first USB id", 0xFFFF, &first) ||
        !session.number(session.arg(1), "second USB id", 0xFFFF, &second))
        return ExitUsage;
    if (const int status = session.open())
        return status;
    return session.check(PXST_SpecifyUSBIdPolicy(session.handle, int(first), int(second)));
}

} // namespace

std::vector<Command> serverCommands()
{
    return {
        {"ping", "", "check that the server answers",
         "Sends a ping and prints the time its reply took.", cmdPing},
        {"status", "", "print the server's status (1 or 0)",
         "Asks the server for its status byte and prints 1 when it is not zero, else 0.",
         cmdStatus},
        {"kill",
         "",
         "stop the server",
         "Tells the server to exit. Never starts a server: with none listening the result is 11.",
         oneCall<PXST_KillPellix>,
         {},
         Connect::NoStart},
        {"clean", "", "clean the server's state", "Tells the server to clean its state.",
         oneCall<PXST_PellixClean>},
        {"flush", "", "flush the server's buffers", "Tells the server to flush its FIFOs.",
         oneCall<PXST_PellixFlushFifos>},
        {"reconnect", "", "make the server reconnect to the target",
         "Makes the server reconnect to the target and waits (up to 10 s) for it to finish.",
         cmdReconnect},
        {"break", "", "send a break on the serial link", "Sends a break on the server's link.",
         oneCall<PXST_ComBreak>},
        {"flow-mode", "MODE", "set the link's flow control",
         "Sets the flow control of the server's link: none, hardware or xonxoff.", cmdFlowMode},
        {"usb-id", "FIRST SECOND", "choose the USB identifiers",
         "Tells the server which USB identifiers (0 to 0xFFFF each) to look for.", cmdUsbId},
        {"auto-baud", "", "start auto-bauding on the link",
         "Tells the server to start auto-bauding with the target.",
         oneCall<PXST_LaunchTargetAutoBauding>},
    };
}

} // namespace pxtool
