#include "HMProxyLog.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

HMProxyLog::~HMProxyLog()
{
    if (m_file) {
        std::fclose(m_file);
    }
}

bool HMProxyLog::open(const std::string &path, int level, std::string *error)
{
    m_level = level;
    const int fd =
        ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0640);
    if (fd < 0 || !(m_file = ::fdopen(fd, "a"))) {
        *error = "cannot open the log " + path + ": " + std::strerror(errno);
        if (fd >= 0) {
            ::close(fd);
        }
        return false;
    }
    std::setvbuf(m_file, nullptr, _IOLBF, 0);
    return true;
}

void HMProxyLog::write(const std::string &line)
{
    std::FILE *out = m_file ? m_file : stderr;
    char stamp[32];
    const std::time_t now = std::time(nullptr);
    struct tm local
    {
    };
    ::localtime_r(&now, &local);
    std::strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", &local);
    std::fprintf(out, "%s %s\n", stamp, line.c_str());
}
