// Relay: the socket side of mpa-relay, a stand-in for the local
// management-plane agent (MPA) that the host agent connects to.
//
// It listens on 127.0.0.1 (or on a socket its owner makes), accepts any
// number of clients, acknowledges each registration with a type 2 document,
// sends requests as type 8 data messages carrying "amqp_correlationId" and
// "amqp_replyTo" in "amqp_headers", and decodes what comes back. Every
// document a client sends is checked against the wire layout (element order
// and BSON types); problems are reported, never fatal.
//
// Connections are numbered from 1 in the order accepted. The current
// connection is the newest registered one that is still open and has not been
// sent a CLOSE: requests go there unless another is named. A connection that
// was sent a CLOSE stays open, so that a later CLOSE on it is stale for the
// client (the client takes a message's cookie from the connection it arrived
// on, and after a CLOSE it registers anew on a fresh connection).
//
// Answers are matched to requests in order per connection: the agent serves
// one connection on one thread and answers in the order it was asked. A
// request's answer is expected unless the request says otherwise.
//
// Threads: a Relay belongs to one thread. Nothing blocks except Poll and
// RunUntil, which wait at most as long as they are told.
#ifndef ZEL_TOOLS_MPA_RELAY_RELAY_H_
#define ZEL_TOOLS_MPA_RELAY_RELAY_H_

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "mpa_relay/relay_wire.h"

namespace orvane {
namespace zel {
namespace dorn {
class DornMessage;
}  // namespace dorn
}  // namespace zel
}  // namespace orvane

namespace mpa_relay {

using Clock = std::chrono::steady_clock;

// Type of the answers' "__TypeId__" header and content type.
extern const char kDornTypeId[];
extern const char kProtobufContentType[];

struct RelayOptions {
  // Port on 127.0.0.1; 0 picks a free one (see Relay::port()).
  uint16_t port = 9002;
  // Acknowledge registrations.
  bool ack = true;
  // Sent in acknowledgements as "mp-version" when set.
  std::optional<std::pair<uint32_t, uint32_t>> mp_version;
  // Makes the listening socket instead of binding 127.0.0.1:port, for
  // example in another network namespace. Returns a listening descriptor,
  // which the relay then owns, or -1. Called again after StopListening().
  std::function<int()> make_listener;
  // Largest document a client may send.
  size_t max_document = 16u << 20;
  // Keep every registration and answer in registrations() and answers();
  // off for long load runs (the observer still sees them all).
  bool keep_history = true;
};

// A registration received.
struct Registration {
  int connection = 0;
  Clock::time_point at;
  std::string app_type;
  int64_t msg_type = 0;
  Document document;
  std::vector<std::string> problems;  // layout problems
};

// An answer, or any data message, received from a client.
struct Answer {
  int connection = 0;
  Clock::time_point at;
  int64_t kind = 0;  // msg_type: 10 plain, 11 to a reply-to
  std::string app_type;
  std::string routing_key;
  std::string content_type;
  std::optional<std::string> correlation_id;  // "amqp_correlationId" header
  std::optional<std::string> type_id;         // "__TypeId__" header
  std::vector<std::pair<std::string, std::string>> headers;  // string headers in order
  std::string session_id;
  std::string message_id;
  std::string payload;
  // The payload parsed; null when it is no DornMessage.
  std::shared_ptr<const orvane::zel::dorn::DornMessage> message;
  // Sequence number of the request it answers, 0 when none was waiting.
  uint64_t request = 0;
  std::chrono::nanoseconds round_trip{0};
  Document document;
  std::vector<std::string> problems;  // layout and protocol problems
};

// A request to send.
struct Request {
  // The payload, normally a serialised DornMessage.
  std::string payload;
  // Header values; nullopt leaves the header out.
  std::optional<std::string> correlation_id;
  std::optional<std::string> reply_to;
  bool expect_answer = true;
  // Empty: the app_type of the connection's registration.
  std::string app_type;
  int64_t msg_type = kMpaData;
  // Empty: the app_type.
  std::string routing_key;
};

// Receives what happens, on the relay's thread, as it happens.
class RelayObserver {
 public:
  virtual ~RelayObserver() = default;
  virtual void OnListening(uint16_t port) {}
  virtual void OnAccepted(int connection) {}
  virtual void OnRegistration(const Registration& registration, bool acked) {}
  virtual void OnRequestSent(int connection, uint64_t seq, const Request& request) {}
  virtual void OnAnswer(const Answer& answer) {}
  // A document of a type that is neither registration nor data.
  virtual void OnOtherDocument(int connection, int64_t msg_type, const Document& doc) {}
  // by_peer: the client closed (or the socket failed); otherwise the relay did.
  virtual void OnClosed(int connection, bool by_peer, const std::string& reason) {}
  // Wire problems that belong to no registration or answer.
  virtual void OnProblem(int connection, const std::string& problem) {}
};

class Relay {
 public:
  explicit Relay(RelayOptions options = {}, RelayObserver* observer = nullptr);
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;
  ~Relay();

  // Opens the listener. False with a reason when the port cannot be had.
  bool Listen(std::string* error);
  // Closes the listener; open connections stay.
  void StopListening();
  bool listening() const { return listener_ >= 0; }
  uint16_t port() const { return bound_port_; }

  // Waits up to `timeout` for socket events and handles them all (accept,
  // read, decode, acknowledge, write). Returns false when nothing happened.
  // An extra input (see WatchInput) and EINTR also end the wait.
  bool Poll(std::chrono::milliseconds timeout);
  // Polls until `done()` is true or `deadline` passes; returns done().
  bool RunUntil(const std::function<bool()>& done, Clock::time_point deadline);

  // Newest registered connection that is open and was sent no CLOSE; 0 when none.
  int current_connection() const;
  // Open connections that were sent a CLOSE (oldest first).
  std::vector<int> closed_by_message() const;
  std::vector<int> open_connections() const;
  bool IsOpen(int connection) const;
  // app_type of the registration on `connection`, "" when none.
  std::string app_type(int connection) const;

  // Sends a request on `connection` (0: the current one). Returns its
  // sequence number (from 1), or 0 when there is no such connection.
  uint64_t Send(const Request& request, int connection = 0);
  // Sends all requests with one write; returns the first sequence number or 0.
  uint64_t SendBatch(const std::vector<Request>& requests, int connection = 0);
  // Sends a request in two writes: the first `at` bytes of its frame, then,
  // after `gap`, the rest, so that the client reads a frame cut there.
  uint64_t SendSplit(const Request& request, size_t at, std::chrono::milliseconds gap,
                     int connection = 0);
  // Writes raw bytes; with `expect_answer` one answer is expected for them.
  bool SendRaw(const std::string& bytes, bool expect_answer, int connection = 0);
  // Sends RMQ_CLIENT_CLOSE (type 5) and keeps the connection open.
  bool SendClose(int connection = 0);
  // Closes the socket of `connection` (0: the current one).
  bool Drop(int connection = 0);
  // Closes every connection.
  void DropAll();
  // Writes out what is queued on `connection` before `deadline`.
  bool Flush(int connection, Clock::time_point deadline);

  // Calls `on_readable` from Poll when `fd` is readable (one descriptor;
  // -1 removes it).
  void WatchInput(int fd, std::function<void()> on_readable);

  const std::vector<Registration>& registrations() const { return registrations_; }
  const std::vector<Answer>& answers() const { return answers_; }
  // Every problem seen, registrations' and answers' included, as
  // "connection N: text".
  const std::vector<std::string>& problems() const { return problems_; }
  uint64_t requests_sent() const { return next_seq_ - 1; }
  // Answers received in all, also when the history is not kept.
  uint64_t answers_received() const { return answers_received_; }
  // Answers expected and not yet come, on open connections.
  size_t outstanding() const;
  // Answers that were expected on connections that have closed since.
  size_t lost_answers() const { return lost_; }

 private:
  struct Pending {
    uint64_t seq;
    Clock::time_point sent;
  };
  struct Connection {
    int id = 0;
    int fd = -1;
    FrameReader reader;
    std::string out;
    bool registered = false;
    bool sent_close = false;
    std::string app_type;
    std::string session_id;
    uint64_t last_message_id = 0;
    std::deque<Pending> pending;
    explicit Connection(size_t max_document) : reader(max_document) {}
  };

  Connection* Find(int connection);
  const Connection* Find(int connection) const;
  Connection* Target(int connection);
  void Accept();
  void ReadFrom(Connection* c);
  void WriteTo(Connection* c);
  void HandleDocument(Connection* c, const std::string& bytes);
  void HandleRegistration(Connection* c, Document doc);
  void HandleData(Connection* c, Document doc);
  void CheckMessageId(Connection* c, const Document& doc, std::vector<std::string>* problems);
  std::string BuildFrame(Connection* c, const Request& request);
  uint64_t Enqueue(Connection* c, const Request& request);
  void Close(Connection* c, bool by_peer, const std::string& reason);
  void Problem(int connection, const std::string& text);

  RelayOptions options_;
  RelayObserver* observer_;
  int listener_ = -1;
  uint16_t bound_port_ = 0;
  int next_id_ = 1;
  uint64_t next_seq_ = 1;
  size_t lost_ = 0;
  uint64_t answers_received_ = 0;
  std::map<int, std::unique_ptr<Connection>> connections_;
  std::vector<int> registration_order_;  // connection ids, newest last
  std::vector<Registration> registrations_;
  std::vector<Answer> answers_;
  std::vector<std::string> problems_;
  int input_fd_ = -1;
  std::function<void()> on_input_;
};

}  // namespace mpa_relay

#endif  // ZEL_TOOLS_MPA_RELAY_RELAY_H_
