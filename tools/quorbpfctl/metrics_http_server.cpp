#include "tools/quorbpfctl/metrics_http_server.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace Quor {
namespace Bpf {
namespace Ctl {

namespace {

constexpr const char* kContentType = "text/plain; version=0.0.4; charset=utf-8";

MHD_Result Reply(MHD_Connection* connection, unsigned status, const std::string& body,
                 const char* type) {
    MHD_Response* response = MHD_create_response_from_buffer(
        body.size(), const_cast<char*>(body.data()), MHD_RESPMEM_MUST_COPY);
    if (response == nullptr) return MHD_NO;
    (void)MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, type);
    const MHD_Result result = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return result;
}

}  // namespace

bool ParseListenAddress(const std::string& text, sockaddr_storage* address, std::string* error) {
    memset(address, 0, sizeof(*address));
    const size_t colon = text.rfind(':');
    std::string host = colon == std::string::npos ? "" : text.substr(0, colon);
    const std::string portText = colon == std::string::npos ? "" : text.substr(colon + 1);
    char* end = nullptr;
    errno = 0;
    const long port = portText.empty() ? -1 : strtol(portText.c_str(), &end, 10);
    if (port < 0 || port > 65535 || errno != 0 || *end != '\0') {
        *error = "--listen needs ADDR:PORT, got '" + text + "'";
        return false;
    }
    if (host.empty()) host = "127.0.0.1";
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
        auto* v6 = reinterpret_cast<sockaddr_in6*>(address);
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(static_cast<uint16_t>(port));
        if (inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &v6->sin6_addr) == 1) {
            return true;
        }
    } else {
        auto* v4 = reinterpret_cast<sockaddr_in*>(address);
        v4->sin_family = AF_INET;
        v4->sin_port = htons(static_cast<uint16_t>(port));
        if (inet_pton(AF_INET, host.c_str(), &v4->sin_addr) == 1) return true;
    }
    *error = "--listen: '" + host + "' is not an IP address (write [::1] for IPv6)";
    return false;
}

namespace {

MHD_Result Answer(void* documentPointer, MHD_Connection* connection, const char* url,
                  const char* method, const char* /*version*/, const char* /*body*/,
                  size_t* /*bodySize*/, void** /*state*/) {
    const auto& document = *static_cast<MetricsHttpServer::Document*>(documentPointer);
    if (strcmp(method, MHD_HTTP_METHOD_GET) != 0 && strcmp(method, MHD_HTTP_METHOD_HEAD) != 0) {
        return Reply(connection, MHD_HTTP_METHOD_NOT_ALLOWED, "only GET\n", "text/plain");
    }
    if (strcmp(url, "/metrics") == 0) {
        return Reply(connection, MHD_HTTP_OK, document(), kContentType);
    }
    if (strcmp(url, "/") == 0) {
        return Reply(connection, MHD_HTTP_OK,
                     "<html><body><a href=\"/metrics\">/metrics</a></body></html>\n",
                     "text/html; charset=utf-8");
    }
    return Reply(connection, MHD_HTTP_NOT_FOUND, "not found; the metrics are at /metrics\n",
                 "text/plain");
}

}  // namespace

bool MetricsHttpServer::Start(const std::string& listen, Document document, std::string* error) {
    sockaddr_storage address;
    if (!ParseListenAddress(listen, &address, error)) return false;
    document_ = std::move(document);
    const bool v6 = address.ss_family == AF_INET6;
    const uint16_t port = ntohs(v6 ? reinterpret_cast<sockaddr_in6*>(&address)->sin6_port
                                   : reinterpret_cast<sockaddr_in*>(&address)->sin_port);
    daemon_ = MHD_start_daemon(
        MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_POLL | (v6 ? MHD_USE_IPv6 : 0), port, nullptr,
        nullptr, &Answer, &document_, MHD_OPTION_SOCK_ADDR, &address, MHD_OPTION_CONNECTION_LIMIT,
        kMaxConnections, MHD_OPTION_CONNECTION_TIMEOUT, kConnectionTimeoutS, MHD_OPTION_END);
    if (daemon_ == nullptr) {
        *error = "cannot listen on " + listen + " (address in use, or not this machine's)";
        return false;
    }
    const MHD_DaemonInfo* info = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT);
    port_ = info != nullptr ? info->port : port;
    return true;
}

void MetricsHttpServer::Stop() {
    if (daemon_ != nullptr) MHD_stop_daemon(daemon_);
    daemon_ = nullptr;
}

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
