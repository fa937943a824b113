// pxtool: the command-line tool on the C interface of the pellix library.

#include "PXToolCommands.h"

#include <climits>
#include <csignal>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

// The folder of the running executable, empty when it cannot be found.
std::string programFolder()
{
    char path[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0)
        return {};
    const std::string full(path, std::size_t(n));
    const std::size_t slash = full.rfind('/');
    return slash == std::string::npos ? std::string() : full.substr(0, slash);
}

} // namespace

int main(int argc, char** argv)
{
    // A closed pipe is a write error like any other, the same whether or not the Qt in use
    // ignores SIGPIPE for its sockets: the command ends at once with status 3.
    std::signal(SIGPIPE, SIG_IGN);
    std::vector<std::string> arguments(argv + 1, argv + argc);
    return pxtool::runTool(arguments, programFolder());
}
