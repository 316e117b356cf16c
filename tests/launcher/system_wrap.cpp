/* Linked with -Wl,--wrap=system: the command lines the launcher would run are recorded
 * instead, so the tests see exactly what would reach the shell. */
#include "support.h"

#include <mutex>

namespace {
std::mutex g_lock;
launcher_test::Lines g_commands;
} // namespace

extern "C" int __wrap_system(const char* command) {
    std::lock_guard<std::mutex> hold(g_lock);
    g_commands.push_back(command != nullptr ? command : "<null>");
    return 0;
}

launcher_test::Lines launcher_test::TakeCommands() {
    std::lock_guard<std::mutex> hold(g_lock);
    Lines taken;
    taken.swap(g_commands);
    return taken;
}
