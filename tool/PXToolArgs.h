#ifndef PELLIX_PXTOOLARGS_H
#define PELLIX_PXTOOLARGS_H

// The command line of pxtool: "pxtool [options] <command> [arguments] [options]".
// Options of the tool itself may stand anywhere; the options of a command only after the
// command's name. "--name value" and "--name=value" are the same; "--" ends the options.

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace pxtool {

struct OptionDef
{
    const char* name;      // without the leading "--"
    const char* valueName; // null for a flag
    const char* help;
};

struct Arguments
{
    std::string command;                       // empty when none was given
    std::vector<std::string> positional;       // after the command name
    std::map<std::string, std::string> values; // option name -> value ("" for flags)

    bool has(const std::string& name) const { return values.count(name) != 0; }
    std::string value(const std::string& name, const std::string& fallback = {}) const
    {
        const auto it = values.find(name);
        return it == values.end() ? fallback : it->second;
    }
};

// Looks up the options of a command by name; null for an unknown command.
using CommandOptionsLookup = std::function<const std::vector<OptionDef>*(const std::string&)>;

// Splits `argv` (without the program name) into command, arguments and options.
// "-h" stands for "--help" and "-q" for "--quiet". Returns false with a message for an unknown
// option, a missing or unexpected option value, or an option given twice.
bool parseArguments(const std::vector<std::string>& argv, const std::vector<OptionDef>& globals,
                    const CommandOptionsLookup& commandOptions, Arguments* out, std::string* error);

} // namespace pxtool

#endif
