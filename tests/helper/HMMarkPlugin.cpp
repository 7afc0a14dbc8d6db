// What a hostile "plugin" directive would load into a root OpenVPN. Being loaded is enough to
// leave a mark in the file named by HM_MARK, before OpenVPN looks for any entry point.
#include <cstdio>
#include <cstdlib>

__attribute__((constructor)) static void leaveMark()
{
    if (const char *path = std::getenv("HM_MARK")) {
        if (std::FILE *file = std::fopen(path, "a")) {
            std::fputs("loaded\n", file);
            std::fclose(file);
        }
    }
}
