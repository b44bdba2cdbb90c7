// libquorbpfclient: receive kernel events from the quorbpf service.
//
// A program connects to the service's local socket, subscribes to event types
// (kernel records 0 to 7 and the service's own events 50001 to 50004, see
// quor/quor_bpf_records.h) and from then on receives every record of those
// types as (type, bytes, length). quor/quorbpf_event_views.h decodes them.
//
//   Quor::Bpf::QuorBpfClient client(
//       [](uint32_t type, const uint8_t* data, size_t len) { ... });
//   if (!client.connect(1000)) { puts("service not running"); return 1; }
//   client.subscribe(QUOR_EVENT_TASK_CREATE, [](int32_t status) { ... });
//   ...
//   client.disconnect();   // or let the destructor do it
//
// Connection: connect(timeoutMs) makes the first connection: 0 tries once,
// a positive value keeps trying for that long, a negative one until it works.
// Once connected, a lost connection (say, the service restarted) is retried
// every reconnect interval until it works again, and every type subscribed
// through this client is subscribed again. Subscriptions therefore belong to
// the client object: they survive reconnects and connect() after disconnect().
//
// Threading: the methods may be called from any thread. Callbacks run on the
// client's own thread, one at a time, in arrival order; they may call
// subscribe(), unsubscribe() and isConnected(), but must not call connect(),
// disconnect() or destroy the client. Records are delivered in the order the
// service sent them; the bytes are valid only during the callback.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#define QUOR_BPF_CLIENT_EXPORT __attribute__((visibility("default")))

namespace Quor {
namespace Bpf {

// The service's socket name.
constexpr const char* QUOR_BPF_CLIENT_DEFAULT_SOCKET = "/mnt/bpfframework/quorbpfdispatcher";

// Response statuses: the service answers 0 (done) or -1 (unknown command);
// the client reports QUOR_BPF_STATUS_DISCONNECTED when the connection went
// away before the answer came.
constexpr int32_t QUOR_BPF_STATUS_OK = 0;
constexpr int32_t QUOR_BPF_STATUS_REFUSED = -1;
constexpr int32_t QUOR_BPF_STATUS_DISCONNECTED = -2;

// Request commands understood by the service.
constexpr uint32_t QUOR_BPF_COMMAND_SUBSCRIBE = 51;
constexpr uint32_t QUOR_BPF_COMMAND_UNSUBSCRIBE = 52;

class QuorBpfClientImpl;

class QUOR_BPF_CLIENT_EXPORT QuorBpfClient {
public:
    // One record: its type (the record's first 32-bit field), its bytes.
    using EventCallback = std::function<void(uint32_t type, const uint8_t* data, size_t length)>;
    // The answer to a request.
    using ResponseCallback = std::function<void(int32_t status)>;
    // true when a connection was established, false when it was lost.
    using ConnectionCallback = std::function<void(bool connected)>;

    struct Options {
        std::string socketName = QUOR_BPF_CLIENT_DEFAULT_SOCKET;
        // Pause between attempts to get a lost connection back.
        int reconnectIntervalMs = 5000;
        // Receive and send buffer; the largest record is 8 bytes shorter.
        int bufferSize = 32768;
        // The service runs as root. Any local user can take the socket's
        // name first, so a server whose process runs under another uid is
        // refused (nothing is sent to it or read from it) unless it is this
        // one; -1 trusts root alone.
        int64_t trustedServerUid = -1;
    };

    explicit QuorBpfClient(EventCallback onEvent);
    QuorBpfClient(EventCallback onEvent, Options options);
    ~QuorBpfClient();

    QuorBpfClient(const QuorBpfClient&) = delete;
    QuorBpfClient& operator=(const QuorBpfClient&) = delete;

    // Told of every connection and loss of connection. Set before connect().
    void setConnectionCallback(ConnectionCallback onConnection);

    // True once connected (at once if already connected); false when the
    // service could not be reached in time, or when disconnect() was called
    // meanwhile from another thread.
    bool connect(int timeoutMs = -1);
    // Closes the connection and stops reconnecting. Requests still waiting
    // are answered QUOR_BPF_STATUS_DISCONNECTED.
    void disconnect();
    bool isConnected() const;
    // Why the last connection attempt failed ("" after a success), e.g. that
    // the server found was not trusted.
    std::string lastError() const;

    // Subscribes to / unsubscribes from a type. The type is remembered (or
    // forgotten) either way; when connected the request is sent and `done`
    // later gets the answer, and true is returned. When not connected, false
    // is returned, `done` is not called, and the next connection applies the
    // remembered subscriptions.
    bool subscribe(int32_t eventType, ResponseCallback done = nullptr);
    bool unsubscribe(int32_t eventType, ResponseCallback done = nullptr);

    // Sends any command with an event type as its data; for tools that probe
    // the service. False when not connected.
    bool sendRequest(uint32_t command, int32_t eventType, ResponseCallback done);

private:
    std::unique_ptr<QuorBpfClientImpl> impl_;
};

}  // namespace Bpf
}  // namespace Quor
