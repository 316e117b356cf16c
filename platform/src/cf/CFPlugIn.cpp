/* Plug-ins of the main bundle: shared objects in <bundle>/Contents/Linux/PlugIns, and
 * nowhere else. A file is looked at before the loader maps it: the loader waits forever on
 * a pipe and dies of SIGBUS on a cut file, and neither may end the launcher. */
#include "cf/PlatCF.h"

#include <dlfcn.h>
#include <errno.h>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <stdio.h>
#include <sys/stat.h>
#include <string.h>
#include <unistd.h>

#include <string>

/* The running program's own header, put there by the linker: a plug-in must match it. */
extern "C" const ElfW(Ehdr) __ehdr_start;

namespace {

/* start + count * entrySize fits in size, without overflow. */
bool TableInside(uint64_t start, uint64_t count, uint64_t entrySize, uint64_t size) {
    return start <= size && (entrySize == 0 || count <= (size - start) / entrySize);
}

bool RangeInside(uint64_t start, uint64_t length, uint64_t size) {
    return start <= size && length <= size - start;
}

/* Why the file open at fd is no whole shared object for this machine; empty when it is. */
std::string ShapeProblem(int fd) {
    struct stat info;
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        return "not a regular file";
    }
    const uint64_t size = static_cast<uint64_t>(info.st_size);
    ElfW(Ehdr) header;
    if (pread(fd, &header, sizeof header, 0) != static_cast<ssize_t>(sizeof header) ||
        memcmp(header.e_ident, ELFMAG, SELFMAG) != 0) {
        return "not a shared object";
    }
    if (header.e_ident[EI_CLASS] != __ehdr_start.e_ident[EI_CLASS] ||
        header.e_ident[EI_DATA] != __ehdr_start.e_ident[EI_DATA] ||
        header.e_machine != __ehdr_start.e_machine) {
        return "made for another machine";
    }
    if (header.e_type != ET_DYN) {
        return "not a shared object";
    }
    if (header.e_phentsize != sizeof(ElfW(Phdr)) || header.e_phnum == 0 ||
        !TableInside(header.e_phoff, header.e_phnum, sizeof(ElfW(Phdr)), size)) {
        return "program headers outside the file";
    }
    for (ElfW(Half) i = 0; i < header.e_phnum; i++) {
        ElfW(Phdr) segment;
        if (pread(fd, &segment, sizeof segment, static_cast<off_t>(header.e_phoff + i * sizeof segment)) !=
                static_cast<ssize_t>(sizeof segment) ||
            !RangeInside(segment.p_offset, segment.p_filesz, size)) {
            return "cut short (a segment ends past the end of the file)";
        }
    }
    if (header.e_shnum != 0) {
        if (header.e_shentsize != sizeof(ElfW(Shdr)) ||
            !TableInside(header.e_shoff, header.e_shnum, sizeof(ElfW(Shdr)), size)) {
            return "cut short (section headers past the end of the file)";
        }
        for (ElfW(Half) i = 0; i < header.e_shnum; i++) {
            ElfW(Shdr) section;
            if (pread(fd, &section, sizeof section,
                      static_cast<off_t>(header.e_shoff + i * sizeof section)) !=
                    static_cast<ssize_t>(sizeof section) ||
                (section.sh_type != SHT_NOBITS && !RangeInside(section.sh_offset, section.sh_size, size))) {
                return "cut short (a section ends past the end of the file)";
            }
        }
    }
    return std::string();
}

/* The plug-in's entry, or null with the reason. */
void* Open(const std::string& path, const char* entryName, std::string& reason) {
    /* Without waiting: a pipe in the plug-in's place opens at once and is then refused. */
    int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        reason = errno == ENOENT ? "missing" : strerror(errno);
        return nullptr;
    }
    reason = ShapeProblem(fd);
    if (!reason.empty()) {
        close(fd);
        return nullptr;
    }
    /* The file looked at is the file loaded, even if the name is replaced meanwhile. */
    std::string opened = "/proc/self/fd/" + std::to_string(fd);
    void* module = dlopen(opened.c_str(), RTLD_NOW | RTLD_LOCAL);
    close(fd);
    if (module == nullptr) {
        const char* error = dlerror();
        reason = error != nullptr ? error : "the loader refused it";
        return nullptr;
    }
    void* entry = dlsym(module, entryName);
    if (entry == nullptr) {
        dlclose(module);
        reason = std::string("no ") + entryName + " in it";
    }
    return entry;
}

/* The main bundle's plug-in folder; empty without a bundle. */
std::string PlugInsFolder() {
    CFURLRef bundleURL = CFBundleCopyBundleURL(CFBundleGetMainBundle());
    const std::string* bundle = PlatCFURLPath(bundleURL);
    std::string folder =
        bundle != nullptr ? *bundle + (bundle->back() == '/' ? "" : "/") + "Contents/Linux/PlugIns" : "";
    CFRelease(bundleURL);
    return folder;
}

} // namespace

void* PlatCFOpenPlugIn(const char* fileName, const char* entryName) {
    std::string folder = PlugInsFolder();
    std::string reason = "no main bundle";
    void* entry = nullptr;
    if (!folder.empty()) {
        entry = Open(folder + "/" + fileName, entryName, reason);
    }
    if (entry == nullptr) {
        fprintf(stderr, "platform: the plug-in %s/%s is not loaded: %s\n", folder.c_str(), fileName,
                reason.c_str());
    }
    return entry;
}
