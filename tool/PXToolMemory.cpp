// Target memory: single values at every width, blocks and masked reads.

#include "PXToolCommands.h"
#include "PXToolFiles.h"

#include <pellix/api/PXLLibraryApi.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace pxtool {

namespace {

enum class Access { Byte, Half, Word, Internal };

int width(Access access)
{
    return access == Access::Half ? 2 : access == Access::Word ? 4 : 1;
}

template <Access access>
int readValue(Session& session)
{
    std::uint32_t address = 0;
    if (!session.u32(session.arg(0), "address", &address))
        return ExitUsage;
    if (const int status = session.open())
        return status;
    unsigned int result = 0;
    std::uint32_t value = 0;
    unsigned char byte = 0;
    unsigned short half = 0;
    switch (access) {
    case Access::Byte:
        result = PXST_Read8(session.handle, address, &byte);
        value = byte;
        break;
    case Access::Internal:
        result = PXST_ReadInternal(session.handle, address, &byte);
        value = byte;
        break;
    case Access::Half:
        result = PXST_Read16(session.handle, address, &half);
        value = half;
        break;
    case Access::Word:
        result = PXST_Read32(session.handle, address, &value);
        break;
    }
    if (result)
        return session.fail(result, atAddress(address));
    char text[16];
    std::snprintf(text, sizeof text, "0x%0*X\n", width(access) * 2, unsigned(value));
    return session.emit(session.record().number("address", address).number("value", value), text);
}

template <Access access>
int writeValue(Session& session)
{
    std::uint32_t address = 0;
    std::uint64_t value = 0;
    const std::uint64_t max = width(access) == 4 ? 0xFFFFFFFFu : width(access) == 2 ? 0xFFFF : 0xFF;
    if (!session.u32(session.arg(0), "address", &address) ||
        !session.number(session.arg(1), "value", max, &value))
        return ExitUsage;
    if (const int status = session.open())
        return status;
    const unsigned int v = unsigned(value);
    const unsigned int result = access == Access::Byte   ? PXST_Write8(session.handle, address, v)
                                : access == Access::Half ? PXST_Write16(session.handle, address, v)
                                : access == Access::Word
                                    ? PXST_Write32(session.handle, address, v)
                                    : PXST_WriteInternal(session.handle, address, v);
    return session.check(result, atAddress(address));
}

// The summary of a block transfer: "<verb>: <size> in <s> s (<rate>)" on stderr.
int transferSummary(const Session& session, const char* verb, const Progress& progress)
{
    const std::uint64_t bytes = progress.done();
    char text[128];
    std::snprintf(text, sizeof text, "%s: %s in %.2f s (%s)\n", verb, formatSize(bytes).c_str(),
                  progress.seconds(), formatRate(bytes, progress.seconds()).c_str());
    return session.summary(session
                               .record()

                               .number("bytes", bytes)
                               .real("seconds", progress.seconds()),
                           text);
}

int cmdRead(Session& session)
{
    std::uint32_t address = 0;
    std::uint32_t size = 0;
    if (!session.u32(session.arg(0), "address", &address) ||
        !session.u32(session.arg(1), "size", &size))
        return ExitUsage;
    const bool toFile = session.args.has("out");
    OutputFile output(session, session.args.value("out"));
    if (const int status = session.open())
        return status;
    if (toFile)
        if (const int status = output.open())
            return status;
    catchStopSignals();
    // A bar between the lines of a hex dump on the same terminal would only garble both.
    Progress progress(session, "read",
                      size > ChunkBytes && (toFile || !isatty(STDOUT_FILENO)) && !session.json);
    std::vector<std::uint8_t> buffer(std::min(size, ChunkBytes));
    for (std::uint32_t done = 0; done < size;) {
        if (stopRequested())
            return session.fail(PXST_RESULT_CANCELLED, "stopped after " + progress.howFar());
        const std::uint32_t n = std::min(ChunkBytes, size - done);
        const std::uint32_t at = address + done;
        if (const unsigned int result = PXST_ReadBlock(session.handle, at, buffer.data(), n)) {
            progress.finish();
            return session.fail(result, atAddress(at));
        }
        const int status = toFile ? output.write(buffer.data(), n)
                                  : session.emit(session.record()
                                                     .number("address", at)
                                                     .text("data", hexBytes(buffer.data(), n)),
                                                 hexDump(at, buffer.data(), n));
        if (status)
            return status;
        done += n;
        progress.update(done, size);
    }
    progress.finish();
    if (!toFile)
        return ExitOk;
    if (const int status = output.commit())
        return status;
    return output.toStdout() ? int(ExitOk) : transferSummary(session, "read", progress);
}

int cmdWrite(Session& session)
{
    std::uint32_t address = 0;
    if (!session.u32(session.arg(0), "address", &address))
        return ExitUsage;
    const bool fromFile = session.args.positional.size() == 2;
    if (fromFile == session.args.has("data"))
        return session.usage("give either a FILE or --data HEX");
    std::vector<std::uint8_t> data;
    if (!fromFile && !parseHexBytes(session.args.value("data"), &data))
        return session.usage("bad --data '" + session.args.value("data") +
                             "': expected hexadecimal bytes such as '01 02 ff'");
    const std::string path = fromFile ? session.arg(1) : std::string();
    std::FILE* file = nullptr;
    std::uint64_t total = data.size();
    if (fromFile) {
        file = path == "-" ? stdin : std::fopen(path.c_str(), "rb");
        struct stat info;
        if (!file)
            return session.fileError("open", path, errno);
        if (fstat(fileno(file), &info) == 0 && S_ISREG(info.st_mode))
            total = std::uint64_t(info.st_size);
    }
    struct Closer
    {
        std::FILE* file;
        ~Closer()
        {
            if (file && file != stdin)
                std::fclose(file);
        }
    } closer{file};
    if (total > 0x100000000ull - address)
        return session.usage("'" + path + "' does not fit between the address and 4 GiB");
    if (const int status = session.open())
        return status;
    catchStopSignals();
    Progress progress(session, "write", total > ChunkBytes);
    std::vector<unsigned int> words(ChunkBytes / 4);
    std::uint64_t done = 0;
    for (;;) {
        if (stopRequested())
            return session.fail(PXST_RESULT_CANCELLED, "stopped after " + progress.howFar());
        std::size_t n = 0;
        if (file) {
            n = std::fread(words.data(), 1, ChunkBytes, file);
            if (n == 0 && std::ferror(file))
                return session.fileError("read", path, errno ? errno : EIO);
        } else {
            n = std::size_t(std::min<std::uint64_t>(ChunkBytes, data.size() - done));
            std::memcpy(words.data(), data.data() + done, n);
        }
        if (n == 0)
            break;
        if (done + n > 0x100000000ull - address)
            return session.usage("'" + path + "' does not fit between the address and 4 GiB");
        const std::uint32_t at = address + std::uint32_t(done);
        if (const unsigned int result =
                PXST_WriteBlock(session.handle, at, words.data(), unsigned(n))) {
            progress.finish();
            return session.fail(result, atAddress(at));
        }
        done += n;
        progress.update(done, std::max(total, done));
    }
    progress.finish();
    return done > ChunkBytes ? transferSummary(session, "write", progress) : session.check(0);
}

int cmdReadMasked(Session& session)
{
    std::uint32_t address = 0;
    if (!session.u32(session.arg(0), "address", &address))
        return ExitUsage;
    if (session.args.has("mask") == session.args.has("mask-file"))
        return session.usage("give either --mask HEX or --mask-file FILE");
    std::vector<std::uint8_t> mask;
    if (session.args.has("mask")) {
        if (!parseHexBytes(session.args.value("mask"), &mask))
            return session.usage("bad --mask '" + session.args.value("mask") +
                                 "': expected hexadecimal bytes such as 'ff ff 00 ff'");
    } else if (const int status = readInput(session, session.args.value("mask-file"), &mask)) {
        return status;
    }
    if (mask.size() > 0xFFFFFFFFu)
        return session.usage("the mask is larger than the 4 GiB address space");
    OutputFile output(session, session.args.value("out"));
    if (const int status = session.open())
        return status;
    std::vector<std::uint8_t> buffer(mask.size());
    const unsigned int result = PXST_ReadBlockMasked(session.handle, address, buffer.data(),
                                                     unsigned(buffer.size()), mask.data());
    if (result)
        return session.fail(result, atAddress(address));
    if (session.args.has("out")) {
        if (const int status = output.open())
            return status;
        if (const int status = output.write(buffer.data(), buffer.size()))
            return status;
        return output.commit();
    }
    std::string masked = hexBytes(buffer.data(), buffer.size());
    for (std::size_t i = 0; i < mask.size(); ++i) {
        if (mask[i] != 0xFF)
            masked.replace(i * 3, 2, "--");
    }
    return session.emit(session.record().number("address", address).text("data", masked),
                        hexDump(address, buffer.data(), buffer.size(), mask.data()));
}

const OptionDef OutOption{"out", "FILE",
                          "write the raw bytes to FILE ('-': stdout) instead of a hex dump"};

} // namespace

std::vector<Command> memoryCommands()
{
    return {
        {"read8", "ADDRESS", "read one byte", "Reads one byte and prints it as 0xNN.",
         readValue<Access::Byte>},
        {"read16", "ADDRESS", "read 16 bits",
         "Reads a 16-bit value (least significant byte at ADDRESS) and prints it as 0xNNNN.",
         readValue<Access::Half>},
        {"read32", "ADDRESS", "read 32 bits",
         "Reads a 32-bit value (least significant byte at ADDRESS) and prints it as 0xNNNNNNNN.",
         readValue<Access::Word>},
        {"read-internal", "ADDRESS", "read one byte of the internal space",
         "Reads one byte of the target's internal space and prints it as 0xNN.",
         readValue<Access::Internal>},
        {"read",
         "ADDRESS SIZE",
         "read a block (hex dump or raw file)",
         "Reads SIZE bytes from ADDRESS upwards and prints a hex dump, or writes the raw bytes\n"
         "to a file with --out.",
         cmdRead,
         {OutOption}},
        {"read-masked",
         "ADDRESS",
         "read the bytes a mask selects",
         "Reads only the bytes whose mask byte is ff; the mask's length is the size of the\n"
         "range. Unselected bytes are never accessed: they print as -- in the hex dump and\n"
         "are written as 0 with --out.",
         cmdReadMasked,
         {{"mask", "HEX", "the mask as hexadecimal bytes, e.g. 'ff ff 00 ff'"},
          {"mask-file", "FILE", "the mask as a raw file, one byte per target byte"},
          OutOption}},
        {"write8", "ADDRESS VALUE", "write one byte", "Writes one byte (0 to 0xFF).",
         writeValue<Access::Byte>},
        {"write16", "ADDRESS VALUE", "write 16 bits", "Writes a 16-bit value (0 to 0xFFFF).",
         writeValue<Access::Half>},
        {"write32", "ADDRESS VALUE", "write 32 bits",
         "Writes a 32-bit value. On the pellix simulator, writing to its event register\n"
         "(0xFFFFFF00 unless configured) raises event VALUE.",
         writeValue<Access::Word>},
        {"write-internal", "ADDRESS VALUE", "write one byte of the internal space",
         "Writes one byte (0 to 0xFF) to the target's internal space.",
         writeValue<Access::Internal>},
        {"write",
         "ADDRESS [FILE]",
         "write a block from a file or hex bytes",
         "Writes the raw bytes of FILE ('-': stdin), or the bytes given with --data, from\n"
         "ADDRESS upwards.",
         cmdWrite,
         {{"data", "HEX", "the bytes to write, e.g. '01 02 ff'"}}},
    };
}

} // namespace pxtool
