// sim_fault_child - a process of its own for the fault-injection tests, so that
// TCAMWRAP_SIM_FAULT is read by a process that starts with it.
//   sim_fault_child calls <function> <n>   prints one word per call: 0, or the errno
//   sim_fault_child points <point>...      prints each point after passing it
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "sim_fault.h"

int main(int argc, char **argv)
{
    std::setvbuf(stdout, nullptr, _IONBF, 0);  // what was printed survives a crash
    if (argc == 4 && std::strcmp(argv[1], "calls") == 0) {
        int n = std::atoi(argv[3]);
        for (int i = 0; i < n; ++i) {
            errno = 0;
            int failed = sim_fault_should_fail(argv[2]);
            std::printf("%s%d", i != 0 ? " " : "", failed != 0 ? errno : 0);
        }
        std::printf("\n");
        return 0;
    }
    if (argc >= 2 && std::strcmp(argv[1], "points") == 0) {
        for (int i = 2; i < argc; ++i) {
            sim_fault_point(argv[i]);
            std::printf("%s\n", argv[i]);
        }
        return 0;
    }
    std::fprintf(stderr, "usage: sim_fault_child calls <function> <n> | points <point>...\n");
    return 2;
}
