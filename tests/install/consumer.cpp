// A user's program: sees nothing but the installed tree.

#include <cstdio>

#include "platform/brumo/Ptr.h"

#if __has_include("interface/PolicyCpuTcamActionInterface.h")
#include "interface/PolicyCpuTcamActionInterface.h"
#endif

int main() {
    std::puts("consumer runs");
    return 0;
}
