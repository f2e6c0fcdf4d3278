// MetricsServer.cpp: the /metrics endpoint on libmicrohttpd. We make the
// listening socket ourselves, so an address in use or refused is reported by
// its own errno, and port 0 tells which port it got.
#include "MetricsServer.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <microhttpd.h>

#include "Exposition.h"

namespace kivmetrics {

namespace {

#if MHD_VERSION >= 0x00097002
using HandlerResult = enum MHD_Result;
#else
using HandlerResult = int;
#endif

// One request: GET or HEAD of /metrics gets the scrape, anything else 404/405.
HandlerResult onRequest(void*, MHD_Connection* conn, const char* url, const char* method,
                        const char*, const char*, size_t*, void**) {
    try {
        const bool get = std::strcmp(method, "GET") == 0 || std::strcmp(method, "HEAD") == 0;
        unsigned code = MHD_HTTP_OK;
        std::string body;
        const char* type = kContentType;
        if (!get) {
            code = MHD_HTTP_METHOD_NOT_ALLOWED;
            body = "only GET\n";
            type = "text/plain";
        } else if (std::strcmp(url, "/metrics") == 0) {
            body = exposition();
        } else {
            code = MHD_HTTP_NOT_FOUND;
            body = "kiv serves /metrics\n";
            type = "text/plain";
        }
        MHD_Response* r =
            MHD_create_response_from_buffer(body.size(), &body[0], MHD_RESPMEM_MUST_COPY);
        if (!r) return MHD_NO;
        MHD_add_response_header(r, "Content-Type", type);
        const HandlerResult rc = MHD_queue_response(conn, code, r);
        MHD_destroy_response(r);
        return rc;
    } catch (...) {
        return MHD_NO;  // the connection is closed; nothing leaves the server's thread
    }
}

struct DaemonDeleter {
    void operator()(MHD_Daemon* d) const { MHD_stop_daemon(d); }
};

struct Server {
    std::mutex lock;
    std::unique_ptr<MHD_Daemon, DaemonDeleter> daemon;
    std::string address;
};

Server& server() {
    static Server s;
    return s;
}

// A socket bound and listening on spec's address; -1 with `err`.
int listenOn(const std::string& spec, std::string& bound, std::string& err) {
    std::string host = "127.0.0.1", port = spec;
    const size_t colon = spec.rfind(':');
    if (colon != std::string::npos) {
        host = spec.substr(0, colon);
        port = spec.substr(colon + 1);
        if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
        if (host.empty()) host = "127.0.0.1";
    }
    char* end = nullptr;
    errno = 0;
    const long p = std::strtol(port.c_str(), &end, 10);
    if (port.empty() || *end != '\0' || errno != 0 || p < 0 || p > 65535) {
        err = "bad metrics address \"" + spec + "\": expected ADDR:PORT with a port of 0 to 65535";
        return -1;
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV | AI_PASSIVE;
    addrinfo* res = nullptr;
    const int gai = getaddrinfo(host.c_str(), port.c_str(), &hints, &res);
    if (gai != 0) {
        err = "bad metrics address \"" + spec + "\": " + gai_strerror(gai);
        return -1;
    }
    std::unique_ptr<addrinfo, void (*)(addrinfo*)> hold(res, freeaddrinfo);
    const int fd = socket(res->ai_family, res->ai_socktype | SOCK_CLOEXEC, res->ai_protocol);
    if (fd < 0) {
        err = std::string("cannot make the metrics socket: ") + std::strerror(errno);
        return -1;
    }
    const int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (bind(fd, res->ai_addr, res->ai_addrlen) != 0 || listen(fd, 64) != 0) {
        const int e = errno;
        close(fd);
        err = "cannot serve metrics on " + host + ":" + port + ": " +
              (e == EADDRINUSE ? std::string("the address is in use") : std::strerror(e));
        return -1;
    }
    sockaddr_storage ss{};
    socklen_t len = sizeof ss;
    getsockname(fd, reinterpret_cast<sockaddr*>(&ss), &len);
    char name[INET6_ADDRSTRLEN] = "?";
    unsigned got = 0;
    if (ss.ss_family == AF_INET) {
        auto* a = reinterpret_cast<sockaddr_in*>(&ss);
        inet_ntop(AF_INET, &a->sin_addr, name, sizeof name);
        got = ntohs(a->sin_port);
        bound = std::string(name) + ":" + std::to_string(got);
    } else {
        auto* a = reinterpret_cast<sockaddr_in6*>(&ss);
        inet_ntop(AF_INET6, &a->sin6_addr, name, sizeof name);
        got = ntohs(a->sin6_port);
        bound = "[" + std::string(name) + "]:" + std::to_string(got);
    }
    return fd;
}

}  // namespace

bool start(const std::string& spec, std::string& bound, std::string& err) {
    Server& s = server();
    std::lock_guard<std::mutex> g(s.lock);
    const int fd = listenOn(spec, bound, err);
    if (fd < 0) return false;
    MHD_Daemon* d = MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_ERROR_LOG, 0, nullptr,
                                     nullptr, &onRequest, nullptr, MHD_OPTION_LISTEN_SOCKET, fd,
                                     MHD_OPTION_CONNECTION_TIMEOUT, 10u, MHD_OPTION_END);
    if (!d) {
        close(fd);
        err = "cannot start the metrics server on " + bound;
        return false;
    }
    s.daemon.reset(d);  // an earlier endpoint stops here
    s.address = bound;
    return true;
}

void stop() {
    Server& s = server();
    std::lock_guard<std::mutex> g(s.lock);
    s.daemon.reset();
    s.address.clear();
}

std::string address() {
    Server& s = server();
    std::lock_guard<std::mutex> g(s.lock);
    return s.address;
}

}  // namespace kivmetrics
