// pxtool: the command-line tool on the C interface of the pellix library.

#include "PXToolCommands.h"

#include <climits>
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
    std::vector<std::string> arguments(argv + 1, argv + argc);
    return pxtool::runTool(arguments, programFolder());
}
