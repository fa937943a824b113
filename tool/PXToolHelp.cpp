// The joined command table, the tool's own options and the help texts.

#include "PXToolCommands.h"

#include <cstdint>

namespace pxtool {

std::size_t Command::minArguments() const
{
    std::size_t count = 0;
    for (const std::string& word : splitWords(synopsis))
        count += word[0] == '[' ? 0 : 1;
    return count;
}

std::size_t Command::maxArguments() const
{
    std::size_t count = 0;
    for (const std::string& word : splitWords(synopsis)) {
        if (word.size() > 3 && word.compare(word.size() - 3, 3, "...") == 0)
            return SIZE_MAX;
        ++count;
    }
    return count;
}

const std::vector<Command>& commands()
{
    static const std::vector<Command> table = [] {
        std::vector<Command> all;
        for (auto family : {serverCommands, memoryCommands, firmwareCommands, followCommands}) {
            const std::vector<Command> rows = family();
            all.insert(all.end(), rows.begin(), rows.end());
        }
        return all;
    }();
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
        {"json", nullptr,
         "print each result, and each failure, as one JSON object per line\n"
         "on stdout"},
        {"progress", nullptr, "draw progress bars even when stderr is not a terminal"},
        {"trace", nullptr,
         "log every frame sent and received, in hexadecimal, on stderr\n"
         "(QT_LOGGING_RULES=pellix.frames.debug=true does the same)"},
        {"help", nullptr, "show help, for the tool or for a command (-h)"},
        {"version", nullptr, "print the version and exit"},
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
                         "Reads and writes target memory, loads, verifies, dumps and converts\n"
                         "firmware (LOD, Intel HEX, S-records, ELF, binary), follows events and\n"
                         "bypass packets, and controls the pellix server.\n"
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
                 "  3  a file cannot be opened, read or written, or its content is not valid\n"
                 "     ('-' is stdin or stdout; outputs appear only when complete)\n"
                 "\n"
                 "Results are data on stdout; notes, summaries and progress go to stderr.\n"
                 "With --json each result and each failure is one JSON object per line.\n"
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
