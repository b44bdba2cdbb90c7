// A real dmabuf for tests: a dumb buffer of the vgem driver (a virtual GEM
// device with no hardware), exported with PRIME. The few DRM definitions it
// needs are restated here: the build machine need not have the DRM headers.
#pragma once

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace quor_test {

struct VgemDmabuf {
    int fd = -1;  // the dmabuf
    uint64_t inode = 0;
    uint64_t size = 0;
};

namespace vgem_detail {
struct DrmVersion {
    int major, minor, patch;
    size_t nameLen;
    char* name;
    size_t dateLen;
    char* date;
    size_t descLen;
    char* desc;
};
struct CreateDumb {
    uint32_t height, width, bpp, flags, handle, pitch;
    uint64_t size;
};
struct PrimeHandle {
    uint32_t handle, flags;
    int32_t fd;
};
constexpr unsigned long kVersion = _IOWR('d', 0x00, DrmVersion);
constexpr unsigned long kCreateDumb = _IOWR('d', 0xB2, CreateDumb);
constexpr unsigned long kPrimeHandleToFd = _IOWR('d', 0x2d, PrimeHandle);
}  // namespace vgem_detail

// The vgem device's descriptor, or -1 when there is none (module not loaded).
inline int OpenVgem() {
    using namespace vgem_detail;
    for (int i = 0; i < 16; ++i) {
        const int dev = open(("/dev/dri/card" + std::to_string(i)).c_str(), O_RDWR | O_CLOEXEC);
        if (dev < 0) continue;
        char name[16] = {};
        DrmVersion version = {};
        version.name = name;
        version.nameLen = sizeof(name) - 1;
        if (ioctl(dev, kVersion, &version) == 0 && strcmp(name, "vgem") == 0) return dev;
        close(dev);
    }
    return -1;
}

// Exports a new width x height buffer of 32-bit pixels from the vgem device;
// fd is -1 on failure. The device descriptor may be closed afterwards: the
// dmabuf keeps the buffer.
inline VgemDmabuf ExportVgemBuffer(int vgem, uint32_t width, uint32_t height) {
    using namespace vgem_detail;
    VgemDmabuf buffer;
    CreateDumb dumb = {};
    dumb.width = width;
    dumb.height = height;
    dumb.bpp = 32;
    if (ioctl(vgem, kCreateDumb, &dumb) != 0) return buffer;
    PrimeHandle prime = {dumb.handle, O_CLOEXEC | O_RDWR, -1};
    if (ioctl(vgem, kPrimeHandleToFd, &prime) != 0) return buffer;
    struct stat st = {};
    if (fstat(prime.fd, &st) != 0) {
        close(prime.fd);
        return buffer;
    }
    return {prime.fd, st.st_ino, dumb.size};
}

}  // namespace quor_test
