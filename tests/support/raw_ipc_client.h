// A deliberately plain client for tests: a blocking Unix stream socket that
// sends hand-built bytes (well-formed or not) and reads frames strictly.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "tests/support/proc_self.h"

namespace quortest {

inline void PutU32(std::string* out, uint32_t v) {
    out->append(reinterpret_cast<char*>(&v), 4);
}
inline void PutS64(std::string* out, int64_t v) {
    out->append(reinterpret_cast<char*>(&v), 8);
}
inline uint32_t GetU32(const std::string& s, size_t at) {
    uint32_t v;
    memcpy(&v, s.data() + at, 4);
    return v;
}

// A frame whose length field says `length` around `payload` as it is.
inline std::string RawFrame(int64_t length, const std::string& payload) {
    std::string out;
    PutS64(&out, length);
    return out + payload;
}

// A well-formed frame holding a typed package.
inline std::string Frame(uint32_t type, const std::string& body) {
    std::string package;
    PutU32(&package, type);
    PutU32(&package, static_cast<uint32_t>(body.size()));
    package += body;
    return RawFrame(static_cast<int64_t>(package.size()), package);
}

// A request frame: reqId, command, dataSize 4, event type.
inline std::string Request(uint32_t reqId, uint32_t command, int32_t eventType) {
    std::string body;
    PutU32(&body, reqId);
    PutU32(&body, command);
    PutU32(&body, 4);
    PutU32(&body, static_cast<uint32_t>(eventType));
    return Frame(0, body);
}

class RawIpcClient {
public:
    // Connects to the abstract socket `name`.
    explicit RawIpcClient(const std::string& name) {
        fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        memcpy(addr.sun_path + 1, name.data(), name.size());
        const socklen_t len = offsetof(sockaddr_un, sun_path) + 1 + name.size();
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
        size_t done = 0;
        while (done < bytes.size()) {
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
            if (left.count() <= 0) return false;
            pollfd p = {fd_, POLLIN, 0};
            if (poll(&p, 1, static_cast<int>(left.count())) <= 0) return false;
            char chunk[65536];
            const ssize_t n = recv(fd_, chunk, sizeof(chunk), 0);
            if (n <= 0) return false;
            pending_.append(chunk, n);
        }
        *out = pending_.substr(0, count);
        pending_.erase(0, count);
        return true;
    }

    // One whole frame: its package type and body (checked against L).
    bool readFrame(uint32_t* type, std::string* body, int timeoutMs = 5000) {
        std::string header;
        if (!readExact(8, &header, timeoutMs)) return false;
        int64_t length;
        memcpy(&length, header.data(), 8);
        if (length < 8 || length > (1 << 20)) return false;
        std::string package;
        if (!readExact(static_cast<size_t>(length), &package, timeoutMs)) {
            pending_.insert(0, header);  // whole frames or nothing
            return false;
        }
        *type = GetU32(package, 0);
        if (GetU32(package, 4) != static_cast<uint64_t>(length) - 8) return false;
        *body = package.substr(8);
        return true;
    }

    // Takes up to `limit` bytes that have arrived off the socket without
    // waiting (kept for later reads); returns the byte count.
    size_t drainAvailable(size_t limit) {
        size_t total = 0;
        char chunk[65536];
        while (total < limit) {
            const size_t want = limit - total < sizeof(chunk) ? limit - total : sizeof(chunk);
            const ssize_t n = recv(fd_, chunk, want, MSG_DONTWAIT);
            if (n <= 0) return total;
            pending_.append(chunk, n);
            total += n;
        }
        return total;
    }

    // True once the peer has closed the connection.
    bool waitClosed(int timeoutMs = 5000) {
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        char chunk[4096];
        while (std::chrono::steady_clock::now() < deadline) {
            pollfd p = {fd_, POLLIN, 0};
            if (poll(&p, 1, 50) <= 0) continue;
            const ssize_t n = recv(fd_, chunk, sizeof(chunk), 0);
            if (n == 0 || (n < 0 && errno == ECONNRESET)) return true;
        }
        return false;
    }

private:
    int fd_ = -1;
    std::string pending_;  // received, not yet read
};

}  // namespace quortest
