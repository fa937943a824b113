#include "PXToolFiles.h"

#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace pxtool {

OutputFile::OutputFile(const Session& session, std::string path)
    : session(session), path(std::move(path))
{}

OutputFile::~OutputFile()
{
    if (file && file != stdout)
        std::fclose(file);
    if (!committed && !temporary.empty())
        unlink(temporary.c_str());
}

int OutputFile::failed(const char* verb, int error)
{
    return session.fileError(verb, path, error ? error : EIO);
}

int OutputFile::open()
{
    // From here a stop signal must end the command through the destructor, which removes the
    // temporary file, never kill it on the spot.
    catchStopSignals();
    if (toStdout()) {
        session.dataOnStdout = true;
        file = stdout;
        return ExitOk;
    }
    struct stat info;
    if (stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
        file = std::fopen(path.c_str(), "wb");
        return file ? int(ExitOk) : failed("open", errno);
    }
    const std::size_t slash = path.rfind('/');
    const std::string folder =
        slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    std::string name = folder + "." + base + ".pxtool-XXXXXX";
    const int fd = mkstemp(&name[0]);
    if (fd < 0)
        return failed("create", errno);
    temporary = name;
    // mkstemp makes the file private; give it the permissions a plain create would.
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(fd, 0666 & ~mask);
    file = fdopen(fd, "wb");
    if (!file) {
        const int error = errno;
        close(fd);
        return failed("create", error);
    }
    return ExitOk;
}

int OutputFile::write(const void* data, std::size_t size)
{
    errno = 0;
    if (size && std::fwrite(data, 1, size, file) != size)
        return failed("write", errno);
    return ExitOk;
}

int OutputFile::print(const char* format, ...)
{
    va_list list;
    va_start(list, format);
    errno = 0;
    const int n = std::vfprintf(file, format, list);
    va_end(list);
    return n < 0 ? failed("write", errno) : int(ExitOk);
}

int OutputFile::commit()
{
    errno = 0;
    if (std::fflush(file) != 0 || std::ferror(file))
        return failed("write", errno);
    if (file == stdout)
        return ExitOk;
    std::FILE* closing = file;
    file = nullptr;
    if (std::fclose(closing) != 0)
        return failed("write", errno);
    if (!temporary.empty() && std::rename(temporary.c_str(), path.c_str()) != 0)
        return failed("replace", errno);
    committed = true;
    return ExitOk;
}

int readInput(const Session& session, const std::string& path, std::vector<std::uint8_t>* bytes)
{
    const bool standardInput = path == "-";
    std::FILE* file = standardInput ? stdin : std::fopen(path.c_str(), "rb");
    if (!file)
        return session.fileError("open", path, errno);
    std::vector<std::uint8_t> data;
    std::uint8_t buffer[65536];
    std::size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0)
        data.insert(data.end(), buffer, buffer + n);
    const int error = std::ferror(file) ? (errno ? errno : EIO) : 0;
    if (!standardInput)
        std::fclose(file);
    if (error)
        return session.fileError("read", path, error);
    bytes->swap(data);
    return ExitOk;
}

} // namespace pxtool
