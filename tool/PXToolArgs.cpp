#include "PXToolArgs.h"

namespace pxtool {

namespace {

const OptionDef* findOption(const std::vector<OptionDef>& options, const std::string& name)
{
    for (const OptionDef& option : options) {
        if (name == option.name)
            return &option;
    }
    return nullptr;
}

} // namespace

bool parseArguments(const std::vector<std::string>& argv, const std::vector<OptionDef>& globals,
                    const CommandOptionsLookup& commandOptions, Arguments* out, std::string* error)
{
    Arguments result;
    const std::vector<OptionDef>* own = nullptr;
    bool optionsEnded = false;
    for (std::size_t i = 0; i < argv.size(); ++i) {
        std::string argument = argv[i];
        if (argument == "-h")
            argument = "--help";
        else if (argument == "-q")
            argument = "--quiet";

        const bool isOption =
            !optionsEnded && argument.size() > 2 && argument[0] == '-' && argument[1] == '-';
        if (!optionsEnded && argument == "--") {
            optionsEnded = true;
            continue;
        }
        if (!isOption) {
            if (!optionsEnded && argument.size() > 1 && argument[0] == '-') {
                *error = "unknown option '" + argument + "'";
                return false;
            }
            if (result.command.empty()) {
                result.command = argument;
                own = commandOptions ? commandOptions(argument) : nullptr;
            } else {
                result.positional.push_back(argument);
            }
            continue;
        }

        std::string name = argument.substr(2);
        std::string value;
        bool inlineValue = false;
        const std::size_t equals = name.find('=');
        if (equals != std::string::npos) {
            value = name.substr(equals + 1);
            name.erase(equals);
            inlineValue = true;
        }
        const OptionDef* known = findOption(globals, name);
        if (!known && own)
            known = findOption(*own, name);
        if (!known) {
            *error = "unknown option '--" + name + "'";
            if (result.command.empty()) {
                // A command option before the command name is the likeliest slip.
                *error += " (command options go after the command)";
            }
            return false;
        }
        if (result.values.count(name)) {
            *error = "option '--" + name + "' given twice";
            return false;
        }
        if (!known->valueName) {
            if (inlineValue) {
                *error = "option '--" + name + "' takes no value";
                return false;
            }
        } else if (!inlineValue) {
            if (i + 1 >= argv.size()) {
                *error = "option '--" + name + "' needs a value (" + known->valueName + ")";
                return false;
            }
            value = argv[++i];
        }
        result.values[name] = value;
    }
    *out = std::move(result);
    return true;
}

} // namespace pxtool
