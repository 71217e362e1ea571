#include "world.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "halvo_log.h"

// libFuzzer calls this before the first input.
extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    halvo_log_sink_g = [](pid_t, int, const char*) {};
    return 0;
}

std::vector<std::string> cut(const uint8_t* data, size_t size)
{
    std::vector<std::string> pieces(1);
    for (const uint8_t* byte = data; byte != data + size; ++byte) {
        if (*byte == 0xff) {
            pieces.emplace_back();
        } else {
            pieces.back() += static_cast<char>(*byte);
        }
    }
    return pieces;
}

void require(bool condition, const char* what)
{
    if (!condition) {
        fprintf(stderr, "not so: %s\n", what);
        abort();
    }
}

extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names for what takes a function's place
int __wrap_open(const char* path, int flags, ...);

int __wrap_open(const char*, int, ...)
{
    if (next_files.empty()) {
        errno = ENOENT;
        return -1;
    }
    static const int file = memfd_create("file", MFD_CLOEXEC);  // each is closed before the next is opened
    const std::string& text = next_files.front();
    require(ftruncate(file, static_cast<off_t>(text.size())) == 0 && lseek(file, 0, SEEK_SET) == 0, "a file");
    require(pwrite(file, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()), "a whole file");
    next_files.erase(next_files.begin());
    return dup(file);
}
// NOLINTEND(bugprone-reserved-identifier)
}
