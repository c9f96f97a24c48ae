// A disk that fails on demand: preloaded into a real program, it stands between the program and the system. While the
// file named by QOR_FAILING_DISK exists, calls fail that concern files whose names begin with the file's second line:
// "sync": what was written cannot be synchronised; "full": there is no space; "read": nothing can be read.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

template <class Function>
Function* real(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

bool fails(int file, const char* how) {
    const char* const control = std::getenv("QOR_FAILING_DISK");
    const int descriptor = control == nullptr ? -1 : ::open(control, O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) return false;
    char text[4096] = {};
    const ssize_t size = real<ssize_t(int, void*, size_t)>("read")(descriptor, text, sizeof text - 1);
    ::close(descriptor);
    char* const end = size > 0 ? std::strchr(text, '\n') : nullptr;
    if (end == nullptr) return false;
    *end = '\0';
    char* const prefix = end + 1;
    prefix[std::strcspn(prefix, "\n")] = '\0';
    char link[64];
    char name[4096] = {};
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", file);
    return std::strcmp(text, how) == 0 && ::readlink(link, name, sizeof name - 1) > 0 &&
           std::strncmp(name, prefix, std::strlen(prefix)) == 0;
}

template <class Result>
Result failed(int error) {
    errno = error;
    return -1;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int fdatasync(int file) {
    return fails(file, "sync") ? failed<int>(EIO) : real<int(int)>("fdatasync")(file);
}
__attribute__((visibility("default"))) int fsync(int file) {
    return fails(file, "sync") ? failed<int>(EIO) : real<int(int)>("fsync")(file);
}
__attribute__((visibility("default"))) ssize_t pwrite64(int file, const void* bytes, size_t size, off64_t at) {
    if (fails(file, "full")) return failed<ssize_t>(ENOSPC);
    return real<ssize_t(int, const void*, size_t, off64_t)>("pwrite64")(file, bytes, size, at);
}
__attribute__((visibility("default"))) ssize_t pwrite(int file, const void* bytes, size_t size, off_t at) {
    return pwrite64(file, bytes, size, at);
}
__attribute__((visibility("default"))) ssize_t pread64(int file, void* bytes, size_t size, off64_t at) {
    if (fails(file, "read")) return failed<ssize_t>(EIO);
    return real<ssize_t(int, void*, size_t, off64_t)>("pread64")(file, bytes, size, at);
}
__attribute__((visibility("default"))) ssize_t pread(int file, void* bytes, size_t size, off_t at) {
    return pread64(file, bytes, size, at);
}

}  // extern "C"
