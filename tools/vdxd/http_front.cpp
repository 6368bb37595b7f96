// vdxd's HTTP listener: one epoll loop over every connection. A connection reads until one
// request is whole (refused past its size limits, closed past its deadline), has httplib
// answer it into a buffer, writes that buffer as the socket takes it, and then reads the next
// request or closes. Everything runs on the front's one thread: no lock is needed.
#include "tools/vdxd/http_front.h"

#include <netdb.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <set>
#include <unordered_map>
#include <utility>

namespace vdxd {

namespace {

using Clock = std::chrono::steady_clock;

// One request, already received whole, for httplib to read; what httplib writes is kept for
// the front to send. Reading past the request is the end of input, as if the client had
// closed: httplib never waits on the network here.
class BufferedStream : public httplib::Stream {
 public:
  BufferedStream(int fd, std::string request) : fd_(fd), in_(std::move(request)) {}

  bool is_readable() const override { return at_ < in_.size(); }
  bool is_writable() const override { return true; }
  ssize_t read(char* ptr, size_t size) override {
    size = std::min(size, in_.size() - at_);
    memcpy(ptr, in_.data() + at_, size);
    at_ += size;
    return static_cast<ssize_t>(size);
  }
  ssize_t write(const char* ptr, size_t size) override {
    out_.append(ptr, size);
    return static_cast<ssize_t>(size);
  }
  void get_remote_ip_and_port(std::string& ip, int& port) const override {
    Address(getpeername, ip, port);
  }
  void get_local_ip_and_port(std::string& ip, int& port) const override {
    Address(getsockname, ip, port);
  }
  socket_t socket() const override { return fd_; }

  std::string TakeOutput() { return std::move(out_); }

 private:
  using NameOf = int (*)(int, sockaddr*, socklen_t*);
  void Address(NameOf name_of, std::string& ip, int& port) const {
    sockaddr_storage address;
    socklen_t length = sizeof(address);
    char host[NI_MAXHOST] = "";
    char service[NI_MAXSERV] = "0";
    if (name_of(fd_, reinterpret_cast<sockaddr*>(&address), &length) == 0)
      getnameinfo(reinterpret_cast<sockaddr*>(&address), length, host, sizeof(host), service,
                  sizeof(service), NI_NUMERICHOST | NI_NUMERICSERV);
    ip = host;
    port = atoi(service);
  }

  int fd_;
  std::string in_;
  size_t at_ = 0;
  std::string out_;
};

bool StartsWithNoCase(const std::string& text, size_t at, const char* prefix) {
  const size_t length = strlen(prefix);
  return text.size() - at >= length && strncasecmp(text.c_str() + at, prefix, length) == 0;
}

// The length of the first request in `in` when it is whole; 0 while more must come; minus an
// HTTP status when it can never be taken. Only what the front needs to know where a request
// ends is read here (the blank line, Content-Length); httplib parses the rest.
long WholeRequest(const std::string& in, const FrontLimits& limits) {
  const size_t blank = in.find("\r\n\r\n");
  if (blank == std::string::npos) return in.size() >= limits.head_bytes ? -431 : 0;
  const size_t head = blank + 4;
  if (head > limits.head_bytes) return -431;
  size_t body = 0;
  for (size_t line = in.find("\r\n") + 2; line < blank; line = in.find("\r\n", line) + 2) {
    if (StartsWithNoCase(in, line, "transfer-encoding:")) return -411;  // no chunked bodies
    if (!StartsWithNoCase(in, line, "content-length:")) continue;
    size_t at = line + strlen("content-length:");
    while (in[at] == ' ' || in[at] == '\t') ++at;
    const size_t end = in.find("\r\n", at);
    size_t digits = at;
    while (digits < end && digits - at < 10 && isdigit(static_cast<unsigned char>(in[digits])))
      ++digits;
    if (digits == at) return -400;
    for (size_t rest = digits; rest < end; ++rest)
      if (in[rest] != ' ' && in[rest] != '\t') return isdigit(static_cast<unsigned char>(in[rest])) ? -413 : -400;
    body = std::stoul(in.substr(at, digits - at));
    if (body > limits.body_bytes) return -413;
  }
  return in.size() >= head + body ? static_cast<long>(head + body) : 0;
}

std::string Refusal(int status) {
  const char* reason = status == 431   ? "Request Header Fields Too Large"
                       : status == 413 ? "Payload Too Large"
                       : status == 411 ? "Length Required"
                                       : "Bad Request";
  const std::string body = std::string(reason) + "\n";
  return "HTTP/1.1 " + std::to_string(status) + " " + reason +
         "\r\nContent-Type: text/plain\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\nConnection: close\r\n\r\n" + body;
}

}  // namespace

bool Router::Answer(httplib::Stream& stream, bool last) {
  bool client_closes = false;
  const bool answered = process_request(stream, last, client_closes, nullptr);
  return answered && !client_closes;
}

size_t ConnectionsFor(size_t descriptors) {
  return std::clamp<size_t>(descriptors / 2, 16, 4096);
}

struct HttpFront::Connection {
  enum State { kReading, kWriting, kDraining };
  int fd = -1;
  State state = kReading;
  std::string in;    // received, not yet answered
  std::string out;   // the answer, from out_at on not yet taken
  size_t out_at = 0;
  size_t served = 0;
  size_t discarded = 0;      // read and thrown away while draining
  bool close_after = false;  // once `out` is written
  bool peer_done = false;    // the client will send no more
  Clock::time_point deadline;
};

HttpFront::HttpFront(Router* router, FrontLimits limits) : router_(router), limits_(limits) {}

HttpFront::~HttpFront() {
  Stop();
  if (listener_ >= 0) close(listener_);
  if (wake_ >= 0) close(wake_);
}

bool HttpFront::Listen(const std::string& host, int port, std::string* error) {
  addrinfo hints;
  memset(&hints, 0, sizeof(hints));
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int looked_up = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
  if (looked_up != 0) {
    *error = gai_strerror(looked_up);
    return false;
  }
  *error = "no address";
  for (addrinfo* at = found; at != nullptr && listener_ < 0; at = at->ai_next) {
    const int fd = socket(at->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int yes = 1;
    if (fd >= 0 && setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes)) == 0 &&
        bind(fd, at->ai_addr, at->ai_addrlen) == 0 && listen(fd, SOMAXCONN) == 0) {
      listener_ = fd;
    } else {
      *error = strerror(errno);
      if (fd >= 0) close(fd);
    }
  }
  freeaddrinfo(found);
  if (listener_ < 0) return false;
  wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake_ < 0) {
    *error = strerror(errno);
    return false;
  }
  return true;
}

void HttpFront::Start() { thread_ = std::thread([this] { Run(); }); }

void HttpFront::Stop() {
  if (!thread_.joinable()) return;
  const uint64_t one = 1;
  if (write(wake_, &one, sizeof(one)) != sizeof(one)) {
    // An eventfd write fails only at its counter's maximum, which is already a wake-up.
  }
  thread_.join();
}

void HttpFront::Run() {
  const int poller = epoll_create1(EPOLL_CLOEXEC);
  if (poller < 0) return;
  std::unordered_map<int, Connection> open;
  std::set<std::pair<Clock::time_point, int>> deadlines;  // the nearest first

  const auto watch = [poller](int op, int fd, uint32_t events) {
    epoll_event event;
    memset(&event, 0, sizeof(event));
    event.events = events;
    event.data.fd = fd;
    epoll_ctl(poller, op, fd, &event);
  };
  const auto set_deadline = [&deadlines](Connection& c, Clock::time_point when) {
    deadlines.erase({c.deadline, c.fd});
    c.deadline = when;
    deadlines.insert({when, c.fd});
  };
  const auto drop = [&](int fd) {
    auto found = open.find(fd);
    if (found == open.end()) return;
    deadlines.erase({found->second.deadline, fd});
    close(fd);  // also leaves the epoll set
    open.erase(found);
  };
  const auto set_state = [&](Connection& c, Connection::State state) {
    if (c.state == state) return;
    c.state = state;
    watch(EPOLL_CTL_MOD, c.fd, state == Connection::kWriting ? EPOLLOUT : EPOLLIN);
  };

  // Writes what the socket takes; then closes (gently: the client's unread bytes would turn
  // the close into a reset that can destroy the answer before it is read), or reads on.
  std::function<void(Connection&)> answer_next;
  const auto send_out = [&](Connection& c) {
    while (c.out_at < c.out.size()) {
      const ssize_t sent = send(c.fd, c.out.data() + c.out_at, c.out.size() - c.out_at,
                                MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent > 0) {
        c.out_at += static_cast<size_t>(sent);
      } else if (sent < 0 && errno == EINTR) {
        continue;
      } else if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        set_state(c, Connection::kWriting);
        return;
      } else {
        drop(c.fd);
        return;
      }
    }
    c.out.clear();
    c.out_at = 0;
    if (c.close_after) {
      shutdown(c.fd, SHUT_WR);
      set_state(c, Connection::kDraining);
      set_deadline(c, Clock::now() + std::chrono::milliseconds(500));
      return;
    }
    set_state(c, Connection::kReading);
    set_deadline(c, Clock::now() + limits_.idle_time);
    answer_next(c);
  };
  // Answers the next whole request in `in`, if any.
  answer_next = [&](Connection& c) {
    const long length = WholeRequest(c.in, limits_);
    if (length == 0) {
      if (c.peer_done) drop(c.fd);
      return;
    }
    if (length < 0) {
      c.out = Refusal(static_cast<int>(-length));
      c.close_after = true;
      c.in.clear();
    } else {
      BufferedStream stream(c.fd, c.in.substr(0, static_cast<size_t>(length)));
      c.in.erase(0, static_cast<size_t>(length));
      const bool last = ++c.served >= limits_.requests || c.peer_done;
      c.close_after = !router_->Answer(stream, last) || last;
      c.out = stream.TakeOutput();
    }
    set_deadline(c, Clock::now() + limits_.answer_time);
    send_out(c);
  };
  const auto receive = [&](Connection& c) {
    char buffer[16384];
    const size_t room = limits_.head_bytes + limits_.body_bytes;
    for (;;) {
      // Draining discards; reading keeps at most one request's worth.
      const size_t want = c.state == Connection::kDraining
                              ? sizeof(buffer)
                              : std::min(sizeof(buffer), room - std::min(room, c.in.size()));
      if (want == 0) break;
      const ssize_t got = recv(c.fd, buffer, want, MSG_DONTWAIT);
      if (got > 0 && c.state == Connection::kDraining) {
        // A client still sending this much past its refusal is not reading: stop taking it.
        c.discarded += static_cast<size_t>(got);
        if (c.discarded > room) {
          drop(c.fd);
          return;
        }
        continue;
      }
      if (got > 0) {
        c.in.append(buffer, static_cast<size_t>(got));
        continue;
      }
      if (got < 0 && errno == EINTR) continue;
      if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
      if (c.state == Connection::kDraining || got < 0) {
        drop(c.fd);
        return;
      }
      c.peer_done = true;
      watch(EPOLL_CTL_MOD, c.fd, 0);  // no more to read; a level-triggered EOF would spin
      break;
    }
    if (c.state == Connection::kReading) answer_next(c);
  };
  bool accepting = true;
  Clock::time_point accept_again;
  const auto accept_all = [&] {
    for (int round = 0; round < 256; ++round) {
      if (open.size() >= limits_.connections && !deadlines.empty())
        drop(deadlines.begin()->second);  // the one nearest its end makes room
      const int fd = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd < 0) {
        if (errno == EINTR || errno == ECONNABORTED) continue;
        if ((errno == EMFILE || errno == ENFILE) && !deadlines.empty()) {
          drop(deadlines.begin()->second);
          continue;
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
          // Out of descriptors with nothing of ours to give back: wait a moment rather than
          // spin on the listener.
          accepting = false;
          accept_again = Clock::now() + std::chrono::milliseconds(100);
          watch(EPOLL_CTL_MOD, listener_, 0);
        }
        return;
      }
      Connection& c = open[fd];
      c.fd = fd;
      c.deadline = Clock::now() + limits_.request_time;
      deadlines.insert({c.deadline, fd});
      watch(EPOLL_CTL_ADD, fd, EPOLLIN);
    }
  };

  watch(EPOLL_CTL_ADD, wake_, EPOLLIN);
  watch(EPOLL_CTL_ADD, listener_, EPOLLIN);
  for (bool running = true; running;) {
    Clock::time_point next = Clock::time_point::max();
    if (!deadlines.empty()) next = deadlines.begin()->first;
    if (!accepting) next = std::min(next, accept_again);
    int timeout = -1;
    if (next != Clock::time_point::max()) {
      const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now());
      timeout = static_cast<int>(std::max<long long>(0, wait.count() + 1));
    }
    epoll_event events[64];
    const int ready = epoll_wait(poller, events, 64, timeout);
    for (int i = 0; i < ready; ++i) {
      const int fd = events[i].data.fd;
      if (fd == wake_) {
        running = false;
      } else if (fd == listener_) {
        accept_all();
      } else {
        auto found = open.find(fd);
        if (found == open.end()) continue;  // dropped earlier in this round
        Connection& c = found->second;
        if (c.state == Connection::kWriting)
          send_out(c);
        else
          receive(c);
      }
    }
    const Clock::time_point now = Clock::now();
    while (!deadlines.empty() && deadlines.begin()->first <= now) drop(deadlines.begin()->second);
    if (!accepting && now >= accept_again) {
      accepting = true;
      watch(EPOLL_CTL_MOD, listener_, EPOLLIN);
    }
  }
  for (auto& [fd, c] : open) close(fd);
  close(poller);
}

}  // namespace vdxd
