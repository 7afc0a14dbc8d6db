// hmwispd: the root helper of the Hollowmere client.
#include "HMWireConstants.h"

#include <cstdio>

int main(int argc, char **argv)
{
    (void)argc;
    (void)argv;
    std::fprintf(stderr, "hmwispd: no requests are served by this build yet (%s)\n",
                 HMWire::kHelperLabel);
    return 0;
}
