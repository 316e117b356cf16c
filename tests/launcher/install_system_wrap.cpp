/* Linked with -Wl,--wrap=system: every command line the launcher would run is recorded
 * instead, so the tests see exactly what would reach the shell. */
#include "install_support.h"

#include <mutex>

namespace {
std::mutex g_lock;
std::vector<std::string> g_commands;
} // namespace

extern "C" int __wrap_system(const char* command) {
    std::lock_guard<std::mutex> hold(g_lock);
    g_commands.push_back(command != nullptr ? command : "<null>");
    return 0;
}

namespace install_test {

std::vector<std::string> RecordedCommands() {
    std::lock_guard<std::mutex> hold(g_lock);
    return g_commands;
}

void ClearRecordedCommands() {
    std::lock_guard<std::mutex> hold(g_lock);
    g_commands.clear();
}

} // namespace install_test
