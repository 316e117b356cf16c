// Fuzzed bytes as the current configuration file, looked up with fuzzed section and key
// names. Input: one byte for the section name's length, one for the key's, the two
// names, then the file's content.
#include "Common/INI.h"
#include "Common/Log.h"

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <unistd.h>

namespace {

std::string g_path;

// An answer is the caller's default or a terminated text inside the line buffer.
void CheckAnswer(const char* answer, const char* defaultValue) {
    if (answer == defaultValue) {
        return;
    }
    if (answer < g_linetext || answer >= g_linetext + sizeof g_linetext ||
        memchr(answer, '\0', g_linetext + sizeof g_linetext - answer) == nullptr) {
        abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    g_path = "/tmp/fuzz_ini-" + std::to_string(getpid()) + ".dat";
    InitLogSystem("/dev/null");
    atexit([] { unlink(g_path.c_str()); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    size_t sectionLength = data[0];
    size_t keyLength = data[1];
    if (size < 2 + sectionLength + keyLength) {
        return 0;
    }
    std::string section(reinterpret_cast<const char*>(data + 2), sectionLength);
    std::string key(reinterpret_cast<const char*>(data + 2 + sectionLength), keyLength);
    const uint8_t* content = data + 2 + sectionLength + keyLength;
    size_t contentLength = size - 2 - sectionLength - keyLength;

    FILE* file = fopen(g_path.c_str(), "wb");
    if (file == nullptr) {
        return 0;
    }
    fwrite(content, 1, contentLength, file);
    fclose(file);
    if (!SetIniFileName(g_path.c_str())) {
        return 0;
    }

    static const char kDefault[] = "default";
    CheckAnswer(ReadString(section.c_str(), key.c_str(), kDefault), kDefault);
    CheckAnswer(ReadStringEx(section.c_str(), key.c_str(), kDefault), kDefault);
    const char* field = GetInitKey(section.c_str(), key.c_str());
    if (field == nullptr) {
        abort();
    }
    if (field[0] != '\0') {
        CheckAnswer(field, nullptr);
    }
    return 0;
}
