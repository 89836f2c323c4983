#include "Platform/Linux/Capture/SharedSegment.h"

#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace velmora {

Result<std::unique_ptr<SharedSegment>> SharedSegment::make(const XConnection& connection, std::size_t size) {
    const int fd = memfd_create("velmora-screen", MFD_CLOEXEC);
    if (fd < 0) return Failure{fmt::format("no memory to share: {}", std::strerror(errno)), errno};
    if (ftruncate(fd, static_cast<off_t>(size)) != 0) {
        const int error = errno;
        close(fd);
        return Failure{fmt::format("no {} bytes of memory to share: {}", size, std::strerror(error)), error};
    }
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
        const int error = errno;
        close(fd);
        return Failure{fmt::format("shared memory cannot be mapped: {}", std::strerror(error)), error};
    }
    const xcb_shm_seg_t id = xcb_generate_id(connection);
    const auto cookie = xcb_shm_attach_fd_checked(connection, id, fd, 0);  // takes `fd` over
    const XReply<xcb_generic_error_t> error(xcb_request_check(connection, cookie));
    if (error || connection.isBroken()) {
        munmap(memory, size);
        return Failure{"the X server cannot share memory with this process", error ? error->error_code : 0};
    }
    return std::unique_ptr<SharedSegment>(
        new SharedSegment(connection, id, static_cast<std::uint8_t*>(memory), size));
}

SharedSegment::~SharedSegment() {
    xcb_shm_detach(connection_, id_);
    munmap(bytes_, size_);
}

}  // namespace velmora
