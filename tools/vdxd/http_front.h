// vdxd's HTTP listener. httplib parses requests and routes them, but its own loop gives every
// connection a thread that waits on the network: a few slow or idle clients then hold every
// worker, and one endless stream of header lines grows without bound. Here one thread waits on
// every connection at once (epoll); a request reaches httplib only once it has arrived whole
// (head and body, within fixed sizes and a deadline), and its answer is written out by the
// same loop as the socket takes it. Nothing waits on a client, and what a client can make
// vdxd hold is bounded: connections, bytes per connection, time per request.
//
// Thread safety: Listen, then Start; Stop from any thread, once. The handlers registered on
// the Router run on the front's thread and must not block.
#ifndef ZOVDX_TOOLS_VDXD_HTTP_FRONT_H_
#define ZOVDX_TOOLS_VDXD_HTTP_FRONT_H_

#include <chrono>
#include <cstddef>
#include <string>
#include <thread>

#include <httplib.h>

namespace vdxd {

// httplib's request parser and router, without its accept loop.
class Router : public httplib::Server {
 public:
  // Answers the one request that `stream` holds whole. `last` asks for "Connection: close".
  // False when the connection must close (bad request, or the client asked for it).
  bool Answer(httplib::Stream& stream, bool last);
};

struct FrontLimits {
  size_t connections = 256;     // open at once; beyond, the one nearest its deadline goes
  size_t head_bytes = 8192;     // request line and header lines, with the blank line
  size_t body_bytes = 4096;     // announced by Content-Length; nothing here takes more
  size_t requests = 16;         // on one connection, then "Connection: close"
  std::chrono::milliseconds request_time{2000};  // from accept to a whole request
  std::chrono::milliseconds idle_time{5000};     // between requests on a kept connection
  std::chrono::milliseconds answer_time{2000};   // for the client to take the answer
};

class HttpFront {
 public:
  HttpFront(Router* router, FrontLimits limits);
  ~HttpFront();
  HttpFront(const HttpFront&) = delete;
  HttpFront& operator=(const HttpFront&) = delete;

  // Binds and listens on host (a name or a numeric address) and port. False with *error set.
  bool Listen(const std::string& host, int port, std::string* error);
  // Serves on a thread of its own until Stop.
  void Start();
  void Stop();

 private:
  struct Connection;
  void Run();

  Router* router_;
  FrontLimits limits_;
  int listener_ = -1;
  int wake_ = -1;  // eventfd: Stop
  std::thread thread_;
};

// The connection budget for a process that may open `descriptors` files: half, so that the
// library and the control socket always find descriptors, within 16..4096.
size_t ConnectionsFor(size_t descriptors);

}  // namespace vdxd

#endif  // ZOVDX_TOOLS_VDXD_HTTP_FRONT_H_
