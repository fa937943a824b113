// Firmware files: load, verify and dump.

#include "PXToolCommands.h"
#include "PXToolFormats.h"

#include <pellix/api/PXLLibraryApi.h>

#include <algorithm>

namespace pxtool {

namespace {

// --format NAME (or --binary for dump); `fallback` when neither is given.
bool parseFormat(const Session& session, Format fallback, Format* format)
{
    *format = fallback;
    const std::string name = session.args.value("format");
    if (session.args.has("format") && !parseFormatName(name, format)) {
        session.usage("bad --format '" + name + "': expected lod, hex, srec, elf or binary");
        return false;
    }
    return true;
}

// The firmware file of load, verify and convert, read and checked before anything is sent.
struct Firmware
{
    std::string path;
    Format format = Format::Lod;
    bool lenient = false; // the library reads the LOD file by its own lenient rules
    Image image;
};

int readFirmware(Session& session, const std::string& path, const char* formatOption,
                 Firmware* firmware)
{
    firmware->path = path;
    firmware->lenient = session.args.has("lenient");
    const bool named = session.args.has(formatOption);
    if (named && !parseFormatName(session.args.value(formatOption), &firmware->format))
        return session.usage("bad --" + std::string(formatOption) + " '" +
                             session.args.value(formatOption) +
                             "': expected lod, hex, srec, elf or binary");
    if (firmware->lenient)
        return (named && firmware->format != Format::Lod) || path == "-"
                   ? session.usage("--lenient applies to LOD files that the library reads")
                   : int(ExitOk);
    std::vector<std::uint8_t> content;
    if (const int status = readInput(session, path, &content))
        return status;
    if (!named)
        firmware->format = detectFormat(content);
    const bool binary = firmware->format == Format::Binary;
    if (binary != session.args.has("address"))
        return named || !binary
                   ? session.usage("--address goes with --format binary, and only there")
                   : session.badFile(path, formatHint(content));
    if (binary) {
        std::uint32_t address = 0;
        if (!session.u32(session.args.value("address"), "address", &address))
            return ExitUsage;
        if (content.size() > 0x100000000ull - address)
            return session.usage("the file does not fit between the address and 4 GiB");
        firmware->image.segments.push_back(Segment{address, std::move(content)});
        return ExitOk;
    }
    FileProblem problem;
    if (!readFormat(firmware->format, content, &firmware->image, &problem)) {
        const std::string hint = named ? formatHint(content) : std::string();
        return session.badFile(
            path + (problem.line ? ":" + std::to_string(problem.line) : std::string()),
            (firmware->format == Format::Lod ? ""
                                             : formatName(firmware->format) + std::string(": ")) +
                problem.what + (hint.empty() ? "" : " (" + hint + ")"));
    }
    for (const std::string& skipped : firmware->image.skipped)
        session.note("%s: %s", path.c_str(), skipped.c_str());
    return ExitOk;
}

int stopped(const Session& session, const Progress& progress)
{
    return session.fail(PXST_RESULT_CANCELLED, "stopped after " + progress.howFar());
}

int transferSummary(const Session& session, const std::string& path, const char* what,
                    const Progress& progress)
{
    const std::uint64_t bytes = progress.done();
    char text[256];
    std::snprintf(text, sizeof text, "%s: %s: %s %s in %.2f s (%s)\n", session.command.c_str(),
                  path.c_str(), formatSize(bytes).c_str(), what, progress.seconds(),
                  formatRate(bytes, progress.seconds()).c_str());
    return session.summary(session
                               .record()

                               .text("file", path)
                               .number("bytes", bytes)
                               .real("seconds", progress.seconds()),
                           text);
}

// Calls `piece(at, bytes, n)` for the image in pieces of at most 64 KiB, in order, with the
// progress drawn and a stop signal honoured between pieces; returns the first failure.
template <typename Piece>
int eachPiece(const Session& session, const Firmware& firmware, Progress& progress, Piece piece)
{
    const std::uint64_t total = firmware.image.size();
    std::uint64_t done = 0;
    for (const Segment& segment : firmware.image.segments) {
        for (std::size_t offset = 0; offset < segment.bytes.size(); offset += ChunkBytes) {
            if (stopRequested())
                return stopped(session, progress);
            const std::size_t n = std::min<std::size_t>(ChunkBytes, segment.bytes.size() - offset);
            if (const int status =
                    piece(segment.address + std::uint32_t(offset), &segment.bytes[offset], n))
                return status;
            done += n;
            progress.update(done, total);
        }
    }
    progress.finish();
    return ExitOk;
}

int writeImage(Session& session, const Firmware& firmware)
{
    Progress progress(session, "load");
    const int status = eachPiece(
        session, firmware, progress,
        [&](std::uint32_t at, const std::uint8_t* bytes, std::size_t n) {
            // The block call takes words but copies bytes: the cast
            // needs no alignment.
            void* data = const_cast<std::uint8_t*>(bytes);
            return session.check(
                PXST_WriteBlock(session.handle, at, static_cast<unsigned int*>(data), unsigned(n)),
                atAddress(at), false);
        });
    return status ? status : transferSummary(session, firmware.path, "written", progress);
}

std::uint32_t wordAt(const std::uint8_t* bytes, std::size_t size)
{
    std::uint32_t word = 0;
    for (std::size_t i = 0; i < size && i < 4; ++i)
        word |= std::uint32_t(bytes[i]) << (8 * i);
    return word;
}

// Reads the image's ranges back and compares them word by word: counts the words that differ,
// prints the first --max-report of them and fails with 17 naming the first.
int verifyImage(Session& session, const Firmware& firmware)
{
    std::uint64_t maxReport = 0;
    if (session.args.has("max-report") &&
        !session.number(session.args.value("max-report"), "report count", 0xFFFFFFFFu, &maxReport))
        return ExitUsage;
    Progress progress(session, "verify");
    std::uint64_t differing = 0;
    std::string first;
    std::vector<std::uint8_t> back(ChunkBytes);
    const auto compare = [&](std::uint32_t at, const std::uint8_t* expected, std::size_t n) {
        if (const unsigned int result =
                PXST_ReadBlock(session.handle, at, back.data(), unsigned(n)))
            return session.fail(result, atAddress(at));
        for (std::size_t i = 0; i < n; i += 4) {
            const std::size_t width = std::min<std::size_t>(4, n - i);
            const std::uint32_t want = wordAt(expected + i, width);
            const std::uint32_t got = wordAt(back.data() + i, width);
            if (want == got)
                continue;
            char text[96];
            std::snprintf(text, sizeof text, "0x%08X: expected 0x%08X, read 0x%08X",
                          unsigned(at + i), unsigned(want), unsigned(got));
            if (differing++ == 0)
                first = text;
            if (differing > maxReport)
                continue;
            const Record r = session.record()
                                 .number("address", at + i)
                                 .number("expected", want)
                                 .number("actual", got);
            if (const int status = session.emit(r, std::string(text) + "\n"))
                return status;
        }
        return int(ExitOk);
    };
    if (const int status = eachPiece(session, firmware, progress, compare))
        return status;
    if (differing)
        return session.fail(PXST_RESULT_MISMATCH,
                            std::to_string(differing) +
                                (differing == 1 ? " word differs" : " words differ") + "; first " +
                                first);
    return transferSummary(session, firmware.path, "match", progress);
}

int lodFailure(const Session& session, unsigned int result, unsigned int failAddress,
               const Firmware& firmware, const Progress& progress)
{
    if (result == PXST_RESULT_CANCELLED)
        return stopped(session, progress);
    if (result == PXST_RESULT_MISMATCH)
        return session.fail(result, "first difference " + atAddress(failAddress));
    return session.fail(result, firmware.path);
}

int verify(Session& session, const Firmware& firmware)
{
    if (!firmware.lenient)
        return verifyImage(session, firmware);
    unsigned int failAddress = 0;
    Progress progress(session, "verify");
    const unsigned int result = PXST_VerifyLodProgress(session.handle, firmware.path.c_str(),
                                                       &failAddress, Progress::callback, &progress);
    progress.finish();
    if (result)
        return lodFailure(session, result, failAddress, firmware, progress);
    return transferSummary(session, firmware.path, "match", progress);
}

// Reads and checks the file of load or verify, then connects: nothing is sent before the
// file is known to be good.
int prepare(Session& session, Firmware* firmware)
{
    if (const int status = readFirmware(session, session.arg(0), "format", firmware))
        return status;
    catchStopSignals();
    return session.open();
}

int cmdLoad(Session& session)
{
    Firmware firmware;
    int status = prepare(session, &firmware);
    if (status)
        return status;
    if (firmware.lenient || (firmware.format == Format::Lod && firmware.path != "-")) {
        // The library reads the LOD file itself; its progress callback carries the stop request.
        Progress progress(session, "load");
        const unsigned int result = PXST_LoadLodProgress(session.handle, firmware.path.c_str(), 0,
                                                         nullptr, Progress::callback, &progress);
        progress.finish();
        status = result ? lodFailure(session, result, 0, firmware, progress)
                        : transferSummary(session, firmware.path, "written", progress);
    } else {
        status = writeImage(session, firmware);
    }
    if (status || !session.args.has("verify"))
        return status;
    return verify(session, firmware);
}

int cmdVerify(Session& session)
{
    Firmware firmware;
    const int status = prepare(session, &firmware);
    return status ? status : verify(session, firmware);
}

int cmdDump(Session& session)
{
    std::uint32_t address = 0;
    std::uint64_t words = 0;
    Format format = Format::Lod;
    if (!session.u32(session.arg(0), "address", &address) ||
        !session.number(session.arg(1), "word count", 0x40000000, &words) ||
        !parseFormat(session, session.args.has("binary") ? Format::Binary : Format::Lod, &format))
        return ExitUsage;
    if (format == Format::Elf)
        return session.usage("dump writes lod, hex, srec or binary");
    const std::uint64_t size = words * 4;
    if (size > 0x100000000ull - address)
        return session.usage("the range runs past the end of the 32-bit address space");
    OutputFile output(session, session.arg(2));
    if (const int status = session.open())
        return status;
    if (const int status = output.open())
        return status;
    catchStopSignals();
    const std::unique_ptr<ImageWriter> writer = formatWriter(format, output);
    Progress progress(session, "dump");
    if (const int status = writer->segment(address))
        return status;
    std::vector<std::uint8_t> buffer(std::min<std::uint64_t>(size, ChunkBytes));
    for (std::uint64_t done = 0; done < size;) {
        if (stopRequested())
            return stopped(session, progress);
        const std::uint32_t n = std::uint32_t(std::min<std::uint64_t>(ChunkBytes, size - done));
        const std::uint32_t at = address + std::uint32_t(done);
        if (const unsigned int result = PXST_ReadBlock(session.handle, at, buffer.data(), n))
            return session.fail(result, atAddress(at));
        if (const int status = writer->bytes(buffer.data(), n))
            return status;
        done += n;
        progress.update(done, size);
    }
    progress.finish();
    if (const int status = writer->finish())
        return status;
    if (const int status = output.commit())
        return status;
    return transferSummary(session, output.name(), "read", progress);
}

int cmdConvert(Session& session)
{
    Firmware firmware;
    Format to = Format::Lod;
    const std::string& target = session.arg(1);
    if (session.args.has("to") ? !parseFormatName(session.args.value("to"), &to)
                               : !formatFromExtension(target, &to))
        return session.usage("give the output format with --to lod, hex, srec or binary");
    if (to == Format::Elf)
        return session.usage("convert writes lod, hex, srec or binary");
    if (session.args.has("lenient"))
        return session.usage("convert reads every file strictly");
    if (const int status = readFirmware(session, session.arg(0), "from", &firmware))
        return status;
    std::vector<Segment>& segments = firmware.image.segments;
    std::stable_sort(segments.begin(), segments.end(),
                     [](const Segment& a, const Segment& b) { return a.address < b.address; });
    for (std::size_t i = 1; i < segments.size(); ++i) {
        const Segment& before = segments[i - 1];
        if (before.address + std::uint64_t(before.bytes.size()) > segments[i].address)
            return session.badFile(firmware.path,
                                   "data overlaps " + atAddress(segments[i].address));
    }
    OutputFile output(session, target);
    if (const int status = output.open())
        return status;
    const std::unique_ptr<ImageWriter> writer = formatWriter(to, output);
    for (const Segment& segment : segments) {
        if (const int status = writer->segment(segment.address))
            return status;
        if (const int status = writer->bytes(segment.bytes.data(), segment.bytes.size()))
            return status;
    }
    if (const int status = writer->finish())
        return status;
    if (const int status = output.commit())
        return status;
    char text[256];
    std::snprintf(text, sizeof text, "convert: %s (%s) -> %s (%s): %s in %zu segment(s)\n",
                  firmware.path.c_str(), formatName(firmware.format), target.c_str(),
                  formatName(to), formatSize(firmware.image.size()).c_str(), segments.size());
    return session.summary(session.record()
                               .text("file", target)
                               .number("bytes", firmware.image.size())
                               .number("segments", segments.size()),
                           text);
}

const OptionDef FormatOption{"format", "NAME",
                             "the file's format: lod, hex, srec, elf or binary (with\n"
                             "--address); chosen by content when not given"};
const OptionDef AddressOption{"address", "ADDRESS", "where a binary file starts in the target"};
const OptionDef LenientOption{"lenient", nullptr,
                              "let the library read the LOD file by its own lenient rules\n"
                              "(unparsable text reads as 0) instead of checking it first"};
const OptionDef MaxReportOption{"max-report", "N",
                                "list the first N differing words on stdout (default 0)"};

} // namespace

std::vector<Command> firmwareCommands()
{
    return {
        {"load",
         "FILE",
         "load a firmware file into the target",
         "Checks FILE ('-': stdin) strictly, then writes it to the target: LOD, Intel HEX,\n"
         "S-records, ELF (loadable segments at their physical addresses) or raw binary\n"
         "(--format binary --address A). LOD packets at 0xF0000000 are skipped, and said so.\n"
         "--verify reads everything back and compares. Ctrl-C stops after the piece in\n"
         "flight and says how far it got.",
         cmdLoad,
         {{"verify", nullptr, "verify the target against the file after loading"},
          FormatOption,
          AddressOption,
          LenientOption,
          MaxReportOption}},
        {"verify",
         "FILE",
         "compare the target with a firmware file",
         "Reads back every byte that FILE (any format of load) holds and compares; differences\n"
         "fail with result 17, naming the first (address, expected and actual word) and how\n"
         "many words differ.",
         cmdVerify,
         {FormatOption, AddressOption, LenientOption, MaxReportOption}},
        {"dump",
         "ADDRESS WORDS FILE",
         "dump target memory to a firmware file",
         "Reads WORDS 32-bit words from ADDRESS upwards into FILE ('-': stdout), streaming:\n"
         "one LOD packet by default, or --format hex, srec or binary. The file appears only\n"
         "when complete.",
         cmdDump,
         {{"binary", nullptr, "write the raw words (little-endian): --format binary"},
          {"format", "NAME", "lod (default), hex, srec or binary"}}},
        {"convert",
         "IN OUT",
         "convert a firmware file to another format",
         "Reads IN ('-': stdin) strictly, in any format of load, and writes OUT ('-': stdout)\n"
         "in the format --to names or OUT's extension says (.lod, .hex, .srec, .s19, .bin).\n"
         "Binary output fills gaps between segments with 0xFF.",
         cmdConvert,
         {{"from", "NAME", "IN's format: lod, hex, srec, elf or binary (by content if not given)"},
          {"to", "NAME", "OUT's format: lod, hex, srec or binary"},
          AddressOption},
         Connect::None},
    };
}

} // namespace pxtool
