#include "world.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

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
ssize_t __wrap_send(int fd, const void* data, size_t size, int flags);

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

ssize_t __wrap_send(int, const void* data, size_t size, int)
{
    require(memchr(data, '\0', size) == nullptr, "a line for the log");
    return static_cast<ssize_t>(size);
}
// NOLINTEND(bugprone-reserved-identifier)
}
