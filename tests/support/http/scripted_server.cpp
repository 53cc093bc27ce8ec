#include "tests/support/http/scripted_server.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <poll.h>
#include <utility>

namespace tarn::test {

namespace {

// Reads until `condition` holds. False: the other side is done before, or this one.
template <typename Condition>
bool ReceiveUntil(Condition condition, int socket, std::string& pending) {
  std::array<char, 65536> part;
  while (!condition()) {
    const ssize_t count = ::recv(socket, part.data(), part.size(), 0);
    if (count <= 0) {
      return false;
    }
    pending.append(part.data(), static_cast<size_t>(count));
  }
  return true;
}

// As one piece: the socket blocks.
bool SendAll(int socket, std::string_view bytes) {
  return ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(bytes.size());
}

bool Receive(int socket, std::string& pending, ScriptedServer::Request& request) {
  size_t end = 0;
  const auto has_head = [&] { return (end = pending.find("\r\n\r\n")) != std::string::npos; };
  if (!ReceiveUntil(has_head, socket, pending)) {
    return false;
  }
  request.head = pending.substr(0, end + 2);
  pending.erase(0, end + 4);
  const size_t blank = request.head.find(' ');
  request.method = request.head.substr(0, blank);
  request.target = request.head.substr(blank + 1, request.head.find(' ', blank + 1) - blank - 1);
  if (!request.Header("Expect").empty()) {
    (void)SendAll(socket, "HTTP/1.1 100 Continue\r\n\r\n");
  }
  const size_t length = std::strtoull(request.Header("Content-Length").c_str(), nullptr, 10);
  if (!ReceiveUntil([&] { return pending.size() >= length; }, socket, pending)) {
    return false;
  }
  request.body = pending.substr(0, length);
  pending.erase(0, length);
  return true;
}

bool Send(int socket, const ScriptedServer::Reply& reply) {
  if (reply.between_bytes.count() == 0) {
    return SendAll(socket, reply.bytes);
  }
  pollfd end{.fd = socket, .events = 0, .revents = 0};
  for (const char& byte : reply.bytes) {
    const bool is_sent = SendAll(socket, {&byte, 1});
    if (!is_sent || ::poll(&end, 1, static_cast<int>(reply.between_bytes.count())) != 0) {
      return false;
    }
  }
  return true;
}

}  // namespace

std::string ScriptedServer::Request::Header(const std::string& name) const {
  const size_t start = head.find("\r\n" + name + ": ");
  if (start == std::string::npos) {
    return {};
  }
  const size_t value = start + name.size() + 4;
  return head.substr(value, head.find("\r\n", value) - value);
}

ScriptedServer::ScriptedServer(Script script_to_follow) : script(std::move(script_to_follow)) {
  (void)::listen(endpoint.socket.get(), 64);
  acceptor = std::thread([this] { Accept(); });
}

ScriptedServer::~ScriptedServer() {
  (void)::shutdown(endpoint.socket.get(), SHUT_RDWR);
  acceptor.join();
  {
    const MutexLock hold(lock);
    for (const UniqueFd& socket : sockets) {
      (void)::shutdown(socket.get(), SHUT_RDWR);
    }
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

std::vector<ScriptedServer::Request> ScriptedServer::Requests() {
  const MutexLock hold(lock);
  return requests;
}

int ScriptedServer::Count(std::string_view method) {
  const MutexLock hold(lock);
  return static_cast<int>(std::count_if(requests.begin(), requests.end(),
                                        [&](const Request& r) { return r.method == method; }));
}

void ScriptedServer::Accept() {
  while (true) {
    UniqueFd socket = AcceptConnection(endpoint.socket.get());
    if (!socket.valid()) {
      return;
    }
    threads.emplace_back([this, fd = socket.get()] { Serve(fd); });
    const MutexLock hold(lock);
    sockets.push_back(std::move(socket));
  }
}

void ScriptedServer::Serve(int socket) {
  std::string pending;
  Request request;
  while (Receive(socket, pending, request)) {
    {
      const MutexLock hold(lock);
      requests.push_back(request);
    }
    const Reply reply = script(request);
    if (!Send(socket, reply) || reply.closes) {
      break;
    }
  }
  (void)::shutdown(socket, SHUT_RDWR);
}

std::string HttpAnswer(int status, const std::string& body, const std::string& headers) {
  return "HTTP/1.1 " + std::to_string(status) + " As Scripted\r\n" + headers +
         "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string MultistatusAnswer(const std::string& responses) {
  return HttpAnswer(
      207,
      "<?xml version=\"1.0\"?><D:multistatus xmlns:D=\"DAV:\">" + responses + "</D:multistatus>",
      "Content-Type: application/xml\r\n");
}

std::string DavResponse(const std::string& href, const std::string& properties) {
  return "<D:response><D:href>" + href + "</D:href><D:propstat><D:prop>" + properties +
         "</D:prop><D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response>";
}

}  // namespace tarn::test
