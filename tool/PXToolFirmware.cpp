// Firmware files: load, verify and dump.

#include "PXToolCommands.h"

#include <pellix/api/PXLLibraryApi.h>

namespace pxtool {

namespace {

int lodFailure(const Session& session, unsigned int result, unsigned int failAddress,
               const std::string& path)
{
    if (result == PXST_RESULT_MISMATCH)
        return session.fail(result, "first difference " + atAddress(failAddress));
    return session.fail(result, path);
}

int transferSummary(const Session& session, const std::string& path, const char* what,
                    const Progress& progress)
{
    const std::uint64_t bytes = progress.done();
    char text[256];
    std::snprintf(text, sizeof text, "%s: %s: %s %s in %.2f s (%s)\n", session.command.c_str(),
                  path.c_str(), formatSize(bytes).c_str(), what, progress.seconds(),
                  formatRate(bytes, progress.seconds()).c_str());
    return session.summary(session.record()
                               .flag("ok", true)
                               .text("file", path)
                               .number("bytes", bytes)
                               .real("seconds", progress.seconds()),
                           text);
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
    return transferSummary(session, path, "match", progress);
}

int cmdLoad(Session& session)
{
    if (const int status = session.open())
        return status;
    const std::string& path = session.arg(0);
    Progress progress(session, "load");
    const unsigned int result = PXST_LoadLodProgress(session.handle, path.c_str(), 0, nullptr,
                                                     Progress::callback, &progress);
    progress.finish();
    if (result)
        return lodFailure(session, result, 0, path);
    if (const int status = transferSummary(session, path, "written", progress))
        return status;
    return session.args.has("verify") ? verifyFile(session, path) : int(ExitOk);
}

int cmdVerify(Session& session)
{
    return verifyFile(session, session.arg(0));
}

int cmdDump(Session& session)
{
    std::uint32_t address = 0;
    std::uint64_t words = 0;
    // The byte count of the read must fit the 32-bit size of a block call.
    if (!session.u32(session.arg(0), "address", &address) ||
        !session.number(session.arg(1), "word count", 0x3FFFFFFF, &words))
        return ExitUsage;
    if (const int status = session.open())
        return status;
    const std::string& path = session.arg(2);
    const bool binary = session.args.has("binary");
    Progress progress(session, "dump");
    const unsigned int result =
        PXST_DumpLodProgress(session.handle, path.c_str(), address, unsigned(words), binary ? 1 : 0,
                             Progress::callback, &progress);
    progress.finish();
    if (result)
        return session.fail(result, result == PXST_RESULT_FILE ? path : atAddress(address));
    return transferSummary(session, path, "read", progress);
}

} // namespace

std::vector<Command> firmwareCommands()
{
    return {
        {"load",
         "FILE",
         "load a LOD file into the target",
         "Writes every packet of the LOD file FILE to the target (packets at 0xF0000000 are\n"
         "skipped), then with --verify reads them back and compares.",
         cmdLoad,
         {{"verify", nullptr, "verify the target against the file after loading"}}},
        {"verify", "FILE", "compare the target with a LOD file",
         "Reads back every packet of the LOD file FILE and compares; a difference fails with\n"
         "result 17 and the address of the first differing word.",
         cmdVerify},
        {"dump",
         "ADDRESS WORDS FILE",
         "dump target memory to a LOD or binary file",
         "Reads WORDS 32-bit words from ADDRESS upwards into FILE: one LOD packet, or the raw\n"
         "words (little-endian) with --binary.",
         cmdDump,
         {{"binary", nullptr, "write raw words instead of LOD text"}}},
    };
}

} // namespace pxtool
