// MetricsHttpServer: serves one text document at /metrics over HTTP, with
// libmicrohttpd doing the HTTP. GET and HEAD only; other paths get 404.
//
//   MetricsHttpServer server;
//   std::string error;
//   if (!server.Start("127.0.0.1:9469", [&] { return metrics.Render(20); }, &error)) ...
//   printf("port %u\n", server.port());
//   server.Stop();   // or the destructor
//
// The listen address is "IPV4:PORT", "[IPV6]:PORT" or ":PORT" (loopback);
// port 0 picks a free port (port() tells which). The document callback runs
// on the server's own thread, once per scrape; connections are bounded in
// number and time so that a slow or idle client cannot hold the server.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <functional>
#include <string>

struct MHD_Daemon;

namespace Quor {
namespace Bpf {
namespace Ctl {

// `text` as a socket address; false with `error` set when it is not one.
bool ParseListenAddress(const std::string& text, sockaddr_storage* address, std::string* error);

class MetricsHttpServer {
public:
    using Document = std::function<std::string()>;
    static constexpr unsigned kMaxConnections = 16;
    static constexpr unsigned kConnectionTimeoutS = 10;

    MetricsHttpServer() = default;
    ~MetricsHttpServer() { Stop(); }
    MetricsHttpServer(const MetricsHttpServer&) = delete;
    MetricsHttpServer& operator=(const MetricsHttpServer&) = delete;

    bool Start(const std::string& listen, Document document, std::string* error);
    void Stop();
    uint16_t port() const { return port_; }

private:
    Document document_;
    MHD_Daemon* daemon_ = nullptr;
    uint16_t port_ = 0;
};

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
