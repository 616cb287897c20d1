#include "mpa_relay/relay.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

#include "orvane/zel/dorn/dorn_fabric_message.pb.h"

namespace mpa_relay {

const char kDornTypeId[] = "com.orvane.zel.dorn.DornFabricMessage.DornMessage";
const char kProtobufContentType[] = "application/protobuf";

namespace {

void SetNonBlocking(int fd) {
  const int flags = fcntl(fd, F_GETFL, 0);
  fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

int Remaining(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  if (left.count() <= 0) return 0;
  return static_cast<int>(std::min<int64_t>(left.count(), 1000));
}

}  // namespace

Relay::Relay(RelayOptions options, RelayObserver* observer)
    : options_(std::move(options)), observer_(observer) {}

Relay::~Relay() {
  DropAll();
  StopListening();
}

bool Relay::Listen(std::string* error) {
  if (listener_ >= 0) return true;
  int fd = -1;
  if (options_.make_listener) {
    fd = options_.make_listener();
    if (fd < 0) {
      *error = "the listener factory gave no socket";
      return false;
    }
  } else {
    fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
      *error = std::string("socket: ") + std::strerror(errno);
      return false;
    }
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(options_.port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd, 64) != 0) {
      *error = "127.0.0.1:" + std::to_string(options_.port) + ": " + std::strerror(errno);
      close(fd);
      return false;
    }
  }
  sockaddr_in bound{};
  socklen_t len = sizeof bound;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &len) == 0) {
    bound_port_ = ntohs(bound.sin_port);
  }
  SetNonBlocking(fd);
  listener_ = fd;
  if (observer_ != nullptr) observer_->OnListening(bound_port_);
  return true;
}

void Relay::StopListening() {
  if (listener_ >= 0) close(listener_);
  listener_ = -1;
}

void Relay::WatchInput(int fd, std::function<void()> on_readable) {
  input_fd_ = fd;
  on_input_ = std::move(on_readable);
}

bool Relay::Poll(std::chrono::milliseconds timeout) {
  std::vector<pollfd> fds;
  std::vector<int> ids;  // connection id per entry; 0 listener, -1 input
  if (listener_ >= 0) {
    fds.push_back({listener_, POLLIN, 0});
    ids.push_back(0);
  }
  if (input_fd_ >= 0) {
    fds.push_back({input_fd_, POLLIN, 0});
    ids.push_back(-1);
  }
  for (const auto& [id, c] : connections_) {
    short events = POLLIN;
    if (!c->out.empty()) events |= POLLOUT;
    fds.push_back({c->fd, events, 0});
    ids.push_back(id);
  }
  const int n = ::poll(fds.data(), fds.size(), static_cast<int>(timeout.count()));
  if (n <= 0) return false;
  for (size_t i = 0; i < fds.size(); ++i) {
    if (fds[i].revents == 0) continue;
    if (ids[i] == 0) {
      Accept();
    } else if (ids[i] == -1) {
      if (on_input_) on_input_();
    } else {
      Connection* c = Find(ids[i]);
      if (c == nullptr) continue;  // closed by an earlier entry's handling
      if (fds[i].revents & POLLOUT) WriteTo(c);
      c = Find(ids[i]);
      if (c != nullptr && (fds[i].revents & (POLLIN | POLLHUP | POLLERR))) ReadFrom(c);
    }
  }
  return true;
}

bool Relay::RunUntil(const std::function<bool()>& done, Clock::time_point deadline) {
  while (!done()) {
    const int wait = Remaining(deadline);
    if (wait <= 0) return done();
    Poll(std::chrono::milliseconds(wait));
  }
  return true;
}

void Relay::Accept() {
  for (;;) {
    const int fd = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return;  // EAGAIN, or a connection that went away at once
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    auto c = std::make_unique<Connection>(options_.max_document);
    c->id = next_id_++;
    c->fd = fd;
    const int id = c->id;
    connections_.emplace(id, std::move(c));
    if (observer_ != nullptr) observer_->OnAccepted(id);
  }
}

void Relay::ReadFrom(Connection* c) {
  uint8_t buf[65536];
  for (;;) {
    const ssize_t n = recv(c->fd, buf, sizeof buf, 0);
    if (n == 0) {
      Close(c, true, "closed by the client");
      return;
    }
    if (n < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK) return;
      if (errno == EINTR) continue;
      Close(c, true, std::string("read failed: ") + std::strerror(errno));
      return;
    }
    const int id = c->id;
    for (const std::string& doc : c->reader.Feed(buf, static_cast<size_t>(n))) {
      HandleDocument(c, doc);
    }
    if (!c->reader.error().empty()) {
      Problem(id, c->reader.error());
      Close(c, false, "unreadable stream: " + c->reader.error());
      return;
    }
    if (static_cast<size_t>(n) < sizeof buf) return;
  }
}

void Relay::WriteTo(Connection* c) {
  while (!c->out.empty()) {
    const ssize_t n = send(c->fd, c->out.data(), c->out.size(), MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) return;
      Close(c, true, std::string("write failed: ") + std::strerror(errno));
      return;
    }
    c->out.erase(0, static_cast<size_t>(n));
  }
}

void Relay::HandleDocument(Connection* c, const std::string& bytes) {
  Document doc;
  std::string error;
  if (!DecodeDocument(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), &doc,
                      &error)) {
    Problem(c->id, "undecodable document: " + error);
    return;
  }
  const std::optional<int64_t> type = doc.Int64("msg_type");
  if (!type) {
    Problem(c->id, "document without an int64 msg_type");
    return;
  }
  switch (*type) {
    case kRegistration:
    case kRegistrationOther:
      HandleRegistration(c, std::move(doc));
      return;
    case kClientData:
    case kAnswerPlain:
    case kAnswerReply:
      HandleData(c, std::move(doc));
      return;
    default:
      Problem(c->id, "unexpected msg_type " + std::to_string(*type));
      if (observer_ != nullptr) observer_->OnOtherDocument(c->id, *type, doc);
  }
}

void Relay::HandleRegistration(Connection* c, Document doc) {
  Registration r;
  r.connection = c->id;
  r.at = Clock::now();
  r.msg_type = doc.Int64("msg_type").value_or(0);
  r.app_type = doc.String("app_type").value_or("");
  r.problems = CheckRegistrationLayout(doc);
  if (c->registered) r.problems.push_back("second registration on one connection");
  CheckMessageId(c, doc, &r.problems);
  r.document = std::move(doc);
  for (const auto& p : r.problems) problems_.push_back("connection " + std::to_string(c->id) + ": " + p);

  c->registered = true;
  c->app_type = r.app_type;
  registration_order_.push_back(c->id);
  if (options_.ack) {
    c->out += Frame(EncodeAck(c->app_type, options_.mp_version));
    WriteTo(c);
  }
  if (observer_ != nullptr) observer_->OnRegistration(r, options_.ack);
  if (options_.keep_history) registrations_.push_back(std::move(r));
}

void Relay::CheckMessageId(Connection* c, const Document& doc, std::vector<std::string>* problems) {
  const std::optional<std::string> id = doc.String("amqp-message-id");
  if (!id) return;  // reported by the layout check
  const uint64_t value = std::strtoull(id->c_str(), nullptr, 10);
  if (value <= c->last_message_id) {
    problems->push_back("amqp-message-id " + *id + " does not follow " +
                        std::to_string(c->last_message_id));
  }
  c->last_message_id = value;
}

void Relay::HandleData(Connection* c, Document doc) {
  Answer a;
  a.connection = c->id;
  a.at = Clock::now();
  a.kind = doc.Int64("msg_type").value_or(0);
  a.app_type = doc.String("app_type").value_or("");
  a.routing_key = doc.String("amqp_routing_key").value_or("");
  a.content_type = doc.String("content_type").value_or("");
  a.session_id = doc.String("session-id").value_or("");
  a.message_id = doc.String("amqp-message-id").value_or("");
  a.problems = CheckDataLayout(doc);
  CheckMessageId(c, doc, &a.problems);

  if (const Element* h = doc.Find("amqp_headers"); h != nullptr && h->type == kBsonDocument) {
    for (const Element& e : h->children) {
      if (e.type != kBsonString) continue;
      a.headers.emplace_back(e.key, e.bytes);
      if (e.key == "amqp_correlationId" && !a.correlation_id) a.correlation_id = e.bytes;
      if (e.key == "__TypeId__" && !a.type_id) a.type_id = e.bytes;
    }
  }
  if (const Element* p = doc.Find("amqp_payload"); p != nullptr && p->type == kBsonBinary) {
    a.payload = p->bytes;
  }

  // What every answer of the agent carries.
  if (!c->registered) a.problems.push_back("data before registration");
  if (a.app_type != c->app_type) {
    a.problems.push_back("app_type \"" + a.app_type + "\" differs from the registration's \"" +
                         c->app_type + "\"");
  }
  if (c->session_id.empty()) {
    c->session_id = a.session_id;
  } else if (a.session_id != c->session_id) {
    a.problems.push_back("session-id changed from " + c->session_id + " to " + a.session_id);
  }
  if (a.content_type != kProtobufContentType) {
    a.problems.push_back("content_type is \"" + a.content_type + "\"");
  }
  if (!a.type_id || *a.type_id != kDornTypeId) {
    a.problems.push_back("__TypeId__ header is " + (a.type_id ? "\"" + *a.type_id + "\"" : "missing"));
  }
  if (!a.correlation_id) a.problems.push_back("amqp_correlationId header is missing");
  if (a.kind == kAnswerReply && a.routing_key.empty()) {
    a.problems.push_back("kind 11 without a routing key");
  }
  if (a.kind == kAnswerPlain && !a.routing_key.empty()) {
    a.problems.push_back("kind 10 with the routing key \"" + a.routing_key + "\"");
  }
  auto message = std::make_shared<orvane::zel::dorn::DornMessage>();
  if (message->ParseFromString(a.payload)) {
    a.message = std::move(message);
  } else {
    a.problems.push_back("payload of " + std::to_string(a.payload.size()) +
                         " bytes is not a DornMessage");
  }

  if (!c->pending.empty()) {
    a.request = c->pending.front().seq;
    a.round_trip = a.at - c->pending.front().sent;
    c->pending.pop_front();
  }
  a.document = std::move(doc);
  for (const auto& p : a.problems) problems_.push_back("connection " + std::to_string(c->id) + ": " + p);
  ++answers_received_;
  if (observer_ != nullptr) observer_->OnAnswer(a);
  if (options_.keep_history) answers_.push_back(std::move(a));
}

void Relay::Close(Connection* c, bool by_peer, const std::string& reason) {
  const int id = c->id;
  lost_ += c->pending.size();
  close(c->fd);
  connections_.erase(id);  // c is gone from here on
  if (observer_ != nullptr) observer_->OnClosed(id, by_peer, reason);
}

void Relay::Problem(int connection, const std::string& text) {
  problems_.push_back("connection " + std::to_string(connection) + ": " + text);
  if (observer_ != nullptr) observer_->OnProblem(connection, text);
}

Relay::Connection* Relay::Find(int connection) {
  auto it = connections_.find(connection);
  return it == connections_.end() ? nullptr : it->second.get();
}

const Relay::Connection* Relay::Find(int connection) const {
  auto it = connections_.find(connection);
  return it == connections_.end() ? nullptr : it->second.get();
}

Relay::Connection* Relay::Target(int connection) {
  return Find(connection != 0 ? connection : current_connection());
}

int Relay::current_connection() const {
  for (auto it = registration_order_.rbegin(); it != registration_order_.rend(); ++it) {
    const Connection* c = Find(*it);
    if (c != nullptr && !c->sent_close) return *it;
  }
  return 0;
}

std::vector<int> Relay::closed_by_message() const {
  std::vector<int> out;
  for (const auto& [id, c] : connections_) {
    if (c->sent_close) out.push_back(id);
  }
  return out;
}

std::vector<int> Relay::open_connections() const {
  std::vector<int> out;
  for (const auto& [id, c] : connections_) out.push_back(id);
  return out;
}

bool Relay::IsOpen(int connection) const { return Find(connection) != nullptr; }

std::string Relay::app_type(int connection) const {
  const Connection* c = Find(connection);
  return c == nullptr ? "" : c->app_type;
}

size_t Relay::outstanding() const {
  size_t n = 0;
  for (const auto& [id, c] : connections_) n += c->pending.size();
  return n;
}

std::string Relay::BuildFrame(Connection* c, const Request& request) {
  DataMessage m;
  m.msg_type = request.msg_type;
  m.app_type = request.app_type.empty() ? c->app_type : request.app_type;
  m.routing_key = request.routing_key.empty() ? m.app_type : request.routing_key;
  if (request.correlation_id) m.headers.emplace_back("amqp_correlationId", *request.correlation_id);
  if (request.reply_to) m.headers.emplace_back("amqp_replyTo", *request.reply_to);
  m.payload = request.payload;
  return Frame(EncodeData(m));
}

uint64_t Relay::Enqueue(Connection* c, const Request& request) {
  const uint64_t seq = next_seq_++;
  if (request.expect_answer) c->pending.push_back({seq, Clock::now()});
  if (observer_ != nullptr) observer_->OnRequestSent(c->id, seq, request);
  return seq;
}

uint64_t Relay::Send(const Request& request, int connection) {
  Connection* c = Target(connection);
  if (c == nullptr) return 0;
  c->out += BuildFrame(c, request);
  const uint64_t seq = Enqueue(c, request);
  WriteTo(c);
  return seq;
}

uint64_t Relay::SendBatch(const std::vector<Request>& requests, int connection) {
  Connection* c = Target(connection);
  if (c == nullptr || requests.empty()) return 0;
  std::string frames;
  for (const Request& r : requests) frames += BuildFrame(c, r);
  c->out += frames;
  uint64_t first = 0;
  for (const Request& r : requests) {
    const uint64_t seq = Enqueue(c, r);
    if (first == 0) first = seq;
  }
  WriteTo(c);
  return first;
}

uint64_t Relay::SendSplit(const Request& request, size_t at, std::chrono::milliseconds gap,
                          int connection) {
  Connection* c = Target(connection);
  if (c == nullptr) return 0;
  const int id = c->id;
  const std::string frame = BuildFrame(c, request);
  at = std::min(at, frame.size());
  c->out += frame.substr(0, at);
  const uint64_t seq = Enqueue(c, request);
  if (!Flush(id, Clock::now() + std::chrono::seconds(5))) return seq;
  // The pause is what cuts the stream: the client reads the first piece on
  // its own before the rest exists.
  std::this_thread::sleep_for(gap);
  c = Find(id);
  if (c == nullptr) return seq;
  c->out += frame.substr(at);
  WriteTo(c);
  return seq;
}

bool Relay::SendRaw(const std::string& bytes, bool expect_answer, int connection) {
  Connection* c = Target(connection);
  if (c == nullptr) return false;
  c->out += bytes;
  if (expect_answer) c->pending.push_back({next_seq_++, Clock::now()});
  WriteTo(c);
  return true;
}

bool Relay::SendClose(int connection) {
  Connection* c = Target(connection);
  if (c == nullptr) return false;
  c->out += Frame(EncodeClose(c->app_type));
  c->sent_close = true;
  lost_ += c->pending.size();
  c->pending.clear();
  WriteTo(c);
  return true;
}

bool Relay::Drop(int connection) {
  Connection* c = Target(connection);
  if (c == nullptr) return false;
  Close(c, false, "closed by the relay");
  return true;
}

void Relay::DropAll() {
  while (!connections_.empty()) Close(connections_.begin()->second.get(), false, "closed by the relay");
}

bool Relay::Flush(int connection, Clock::time_point deadline) {
  for (;;) {
    Connection* c = Find(connection);
    if (c == nullptr) return false;
    WriteTo(c);
    c = Find(connection);
    if (c == nullptr) return false;
    if (c->out.empty()) return true;
    const int wait = Remaining(deadline);
    if (wait <= 0) return false;
    pollfd p{c->fd, POLLOUT, 0};
    ::poll(&p, 1, wait);
  }
}

}  // namespace mpa_relay
