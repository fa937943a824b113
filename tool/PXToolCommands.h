#ifndef PELLIX_PXTOOLCOMMANDS_H
#define PELLIX_PXTOOLCOMMANDS_H

// The command table of pxtool and its entry point. Each family of commands keeps its rows
// beside its code (PXToolMemory, PXToolFirmware, PXToolFollow, PXToolServer); PXToolHelp
// joins them and prints the help.

#include "PXToolArgs.h"
#include "PXToolSession.h"

#include <cstddef>
#include <string>
#include <vector>

namespace pxtool {

// How a command reaches the server.
enum class Connect {
    StartServer, // by port number: start the pellix server beside pxtool when none answers
    NoStart,     // never start a server (kill: stopping a server must not start one)
    None,        // works on files only
};

// One row: what differs between commands. The number of arguments follows from the synopsis:
// a word is one argument, "[WORD]" an optional one, "WORD..." one or more.
struct Command
{
    const char* name;
    const char* synopsis;    // the arguments, e.g. "ADDRESS SIZE"
    const char* summary;     // one line for the command list
    const char* description; // the text of "pxtool help <command>"
    int (*run)(Session& session);
    std::vector<OptionDef> options = {};
    Connect connect = Connect::StartServer;

    std::size_t minArguments() const;
    std::size_t maxArguments() const; // SIZE_MAX for "any number"
};

// The families' rows.
std::vector<Command> memoryCommands();
std::vector<Command> firmwareCommands();
std::vector<Command> followCommands();
std::vector<Command> serverCommands();

const std::vector<Command>& commands();
const Command* findCommand(const std::string& name);
const std::vector<OptionDef>& globalOptions();

// Help texts, written to `stream`.
void printToolHelp(std::FILE* stream);
void printCommandHelp(std::FILE* stream, const Command& command);

// Runs pxtool with `argv` (without the program name) and returns its exit status.
// `programFolder` is the folder of the pxtool executable: PXST_Open starts the server from the
// current folder in a program without a Qt application object, so the tool opens from there.
int runTool(const std::vector<std::string>& argv, const std::string& programFolder);

} // namespace pxtool

#endif
