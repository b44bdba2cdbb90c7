// A deliberately plain client for tests: a blocking Unix stream socket that
// sends hand-built bytes (well-formed or not) and reads frames strictly.
#pragma once

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>

#include "tests/support/proc_self.h"

namespace quortest {

template <typename T>
void Put(std::string* out, T v) {
    out->append(reinterpret_cast<const char*>(&v), sizeof(v));
}
inline uint32_t GetU32(const std::string& s, size_t at) {
    uint32_t v;
    memcpy(&v, s.data() + at, 4);
    return v;
}

inline socklen_t AbstractAddress(const std::string& name, sockaddr_un* addr) {
    *addr = {};
    addr->sun_family = AF_UNIX;
    memcpy(addr->sun_path + 1, name.data(), name.size());
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
}

// A frame whose length field says `length` around `payload` as it is.
inline std::string RawFrame(int64_t length, const std::string& payload) {
    std::string out;
    Put(&out, length);
    return out + payload;
}

// A well-formed frame holding a typed package.
inline std::string Frame(uint32_t type, const std::string& body) {
    std::string package;
    Put(&package, type);
    Put(&package, static_cast<uint32_t>(body.size()));
    return RawFrame(static_cast<int64_t>(package.size() + body.size()), package + body);
}

// A request frame: reqId, command, dataSize 4, event type.
inline std::string Request(uint32_t reqId, uint32_t command, int32_t eventType) {
    std::string body;
    for (uint32_t v : {reqId, command, 4u, static_cast<uint32_t>(eventType)}) Put(&body, v);
    return Frame(0, body);
}

class RawIpcClient {
public:
    explicit RawIpcClient(const std::string& name)
        : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un addr;
        const socklen_t len = AbstractAddress(name, &addr);
        if (::connect(fd_, reinterpret_cast<sockaddr*>(&addr), len) != 0) close();
    }
    ~RawIpcClient() { close(); }
    RawIpcClient(const RawIpcClient&) = delete;
    RawIpcClient& operator=(const RawIpcClient&) = delete;

    bool connected() const { return fd_ != -1; }
    int fd() const { return fd_; }
    void close() {
        if (fd_ != -1) ::close(fd_);
        fd_ = -1;
    }

    bool send(const std::string& bytes) {
        for (size_t done = 0; done < bytes.size();) {
            const ssize_t n = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (n <= 0) return false;
            done += n;
        }
        return true;
    }

    // Exactly `count` bytes, or false on timeout or close (bytes read so far
    // are kept for the next call, so a frame is never lost half-way).
    bool readExact(size_t count, std::string* out, int timeoutMs = 5000) {
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (pending_.size() < count) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd p = {fd_, POLLIN, 0};
            if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) <= 0 ||
                take(SIZE_MAX, 0) <= 0) {
                return false;
            }
        }
        *out = pending_.substr(0, count);
        pending_.erase(0, count);
        return true;
    }

    // The body of the next frame, which must hold a package of `type` whose
    // body length agrees with the frame's.
    bool readPackage(uint32_t type, std::string* body, int timeoutMs = 5000) {
        std::string header, package;
        if (!readExact(8, &header, timeoutMs)) return false;
        int64_t length;
        memcpy(&length, header.data(), 8);
        if (length < 8 || length > (1 << 20)) return false;
        if (!readExact(static_cast<size_t>(length), &package, timeoutMs)) {
            pending_.insert(0, header);  // whole frames or nothing
            return false;
        }
        *body = package.substr(8);
        return GetU32(package, 0) == type &&
               GetU32(package, 4) == static_cast<uint64_t>(length) - 8;
    }

    // Sends a request; its response's status (INT32_MIN when none came).
    int32_t ask(uint32_t reqId, uint32_t command, int32_t eventType) {
        std::string body;
        if (!send(Request(reqId, command, eventType)) || !readPackage(1, &body) ||
            body.size() < 8 || GetU32(body, 0) != reqId) {
            return INT32_MIN;
        }
        return static_cast<int32_t>(GetU32(body, 4));
    }

    // Takes up to `limit` bytes that have arrived off the socket without
    // waiting (kept for later reads); returns the byte count.
    size_t drainAvailable(size_t limit) {
        size_t total = 0;
        for (ssize_t n; total < limit && (n = take(limit - total, MSG_DONTWAIT)) > 0;) total += n;
        return total;
    }

    bool waitClosed(int timeoutMs = 5000) {
        char chunk[4096];
        return WaitFor(
            [&] {
                pollfd p = {fd_, POLLIN, 0};
                if (poll(&p, 1, 50) <= 0) return false;
                const ssize_t n = recv(fd_, chunk, sizeof(chunk), 0);
                return n == 0 || (n < 0 && errno == ECONNRESET);
            },
            std::chrono::milliseconds(timeoutMs), 0);
    }

private:
    ssize_t take(size_t limit, int flags) {
        char chunk[65536];
        const ssize_t n = recv(fd_, chunk, std::min(limit, sizeof(chunk)), flags);
        if (n > 0) pending_.append(chunk, n);
        return n;
    }

    int fd_ = -1;
    std::string pending_;  // received, not yet read
};

}  // namespace quortest
