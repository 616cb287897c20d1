// mpa-relay: a stand-in for the local management-plane agent (MPA), for
// tests, benchmarks and for driving a host agent by hand. Run with --help.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "mpa_relay/relay.h"
#include "mpa_relay/relay_script.h"
#include "mpa_relay/relay_wire.h"
#include "orvane/zel/dorn/dorn_fabric_message.pb.h"

namespace {

using mpa_relay::Clock;
using mpa_relay::Step;
using mpa_relay::StepKind;

volatile std::sig_atomic_t g_stop = 0;
void OnSignal(int) { g_stop = 1; }

constexpr int kExitOk = 0;
constexpr int kExitMissing = 1;
constexpr int kExitUsage = 2;
constexpr int kExitLayout = 3;
constexpr int kExitListen = 4;

const char kHelp[] =
    "usage: mpa-relay [options] [steps]\n"
    "\n"
    "Stands in for the local management-plane agent (MPA) that the Dorn Host Agent\n"
    "connects to. Listens on 127.0.0.1, acknowledges every registration with a type 2\n"
    "message, sends DornMessage requests to the registered client as type 8 data\n"
    "messages (headers amqp_correlationId and amqp_replyTo), and prints every answer\n"
    "decoded. Every document the client sends is checked against the wire layout.\n"
    "\n"
    "Options:\n"
    "  --port N             port on 127.0.0.1 (default 9002)\n"
    "  --json               print one JSON object per line instead of text\n"
    "  --quiet              print only problems and the summary\n"
    "  --timeout SECONDS    give up after this long (default 30); with no steps the\n"
    "                       relay serves until signalled, or for this long if given\n"
    "  --wait-answers N     expect N answers in all (default: one per request the\n"
    "                       agent answers; see --no-answer)\n"
    "  --window N           requests in flight at once (default 1: each request waits\n"
    "                       for the answer of the one before; 0: no limit)\n"
    "  --repeat N           do the steps N times (load runs; use with --stats)\n"
    "  --stats              print round-trip figures at the end\n"
    "  --reply-to NAME      amqp_replyTo of requests (default \"mpa-relay\"); an empty\n"
    "                       NAME leaves the header out and the answer comes as kind 10\n"
    "  --correlation PREFIX amqp_correlationId of requests: PREFIX-1, PREFIX-2 ...\n"
    "                       (default \"relay\")\n"
    "  --no-ack             do not acknowledge registrations\n"
    "  --mp-version MAJ.MIN send mp-version in acknowledgements\n"
    "  --serve              keep serving after the steps until signalled\n"
    "  --ready-file PATH    write the port to PATH once listening (for scripts that\n"
    "                       start the agent after the relay)\n"
    "  --stdin              read more steps from standard input, in the file format\n"
    "                       (a blank line ends a request); ends at end of input\n"
    "\n"
    "Steps, done in the order given, each once a client has registered:\n"
    "  --send 'TEXT'        a DornMessage in protobuf text format, for example\n"
    "                       'message_type: MT_RUN_COMMAND operation_id: \"op-1\"\n"
    "                        dorn_fabric_object { runCommand { command: \"uname -a\" } }'\n"
    "  --file PATH          steps from a file: text-format requests separated by blank\n"
    "                       lines, '#' comments (one just before a request is its\n"
    "                       title), and directive lines: !sync !close !close-stale\n"
    "                       !drop !restart MS !malformed KIND !await-registration\n"
    "                       !no-answer !split K !batch N (as the options below)\n"
    "  --no-answer          the next request gets no answer. Without it the relay\n"
    "                       expects one for every request except MT_OPERATION_STATUS\n"
    "                       and MT_INIT without operation_id\n"
    "  --split K            write the next request in two pieces: its first K bytes\n"
    "                       (K <= 4 cuts the length prefix), then the rest\n"
    "  --batch N            write the next N requests with one write\n"
    "  --sync               wait until every expected answer has come\n"
    "  --close              send RMQ_CLIENT_CLOSE (type 5) on the current connection;\n"
    "                       the client takes it as its own, disconnects and registers\n"
    "                       again on a new connection; the old one stays open here\n"
    "  --close-stale        send RMQ_CLIENT_CLOSE on an older connection that is still\n"
    "                       open (left by --close); its cookie is stale to the client,\n"
    "                       which must ignore it\n"
    "  --drop               close the current connection's socket\n"
    "  --restart MS         close the listener and every connection, listen again\n"
    "                       after MS milliseconds\n"
    "  --malformed KIND     send a damaged frame on the current connection: garbage,\n"
    "                       bad-length, wrong-types, not-dorn, unknown-type,\n"
    "                       unknown-keys (answered), empty-doc, zero-length,\n"
    "                       half-frame (then the relay closes the connection).\n"
    "                       The agent may drop a connection on damaged input and\n"
    "                       register again; requests sent on the old connection\n"
    "                       before the relay sees it close are lost\n"
    "  --await-registration wait for a new registration\n"
    "Actions other than --send first wait for the answers in flight.\n"
    "\n"
    "Exit status: 0 every expected answer came and the client kept the wire layout;\n"
    "1 answers missing at the deadline (or a step could not be done); 2 bad usage;\n"
    "3 a wire layout problem was seen; 4 the port cannot be had.\n"
    "\n"
    "Examples:\n"
    "  mpa-relay                      serve and print what the agent sends\n"
    "  mpa-relay --send 'message_type: MT_GET_RSA_KEY operation_id: \"k1\"'\n"
    "  mpa-relay --file session.txt --json\n"
    "  mpa-relay --repeat 10000 --window 64 --stats --quiet \\\n"
    "            --send 'message_type: MT_SOFTWARE_STATUS operation_id: \"s\"'\n";

int Usage(const std::string& why) {
  std::fprintf(stderr, "mpa-relay: %s\n(run mpa-relay --help for the options)\n", why.c_str());
  return kExitUsage;
}

bool ParseNumber(const char* text, long min, long max, long* out) {
  char* end = nullptr;
  errno = 0;
  const long v = std::strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || v < min || v > max) return false;
  *out = v;
  return true;
}

std::string Indent(const std::string& text) {
  std::string out;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) out += "    " + line + "\n";
  return out;
}

std::string Quoted(const std::string& s) { return "\"" + mpa_relay::JsonEscape(s) + "\""; }

// Prints what happens, as text or JSON lines.
class Printer : public mpa_relay::RelayObserver {
 public:
  Printer(bool json, bool quiet) : json_(json), quiet_(quiet), start_(Clock::now()) {}

  // Counting for the main loop and the figures.
  size_t registrations_seen = 0;
  bool keep_round_trips = false;
  std::vector<double> round_trips_us;
  Clock::time_point last_answer{};

  void Note(uint64_t seq, const std::string& title) {
    if (titles_.size() < seq + 1) titles_.resize(seq + 1);
    titles_[seq] = title;
  }

  void OnListening(uint16_t port) override {
    if (json_) {
      Line("{\"event\":\"listening\",\"port\":" + std::to_string(port) + "}");
    } else {
      Line("listening on 127.0.0.1:" + std::to_string(port));
    }
  }
  void OnAccepted(int connection) override {
    if (quiet_) return;
    if (json_) {
      Line("{\"event\":\"accepted\",\"connection\":" + std::to_string(connection) + "}");
    } else {
      Line("connection " + std::to_string(connection) + " accepted");
    }
  }
  void OnRegistration(const mpa_relay::Registration& r, bool acked) override {
    ++registrations_seen;
    const auto& d = r.document;
    if (json_) {
      Line("{\"event\":\"registration\",\"connection\":" + std::to_string(r.connection) +
           ",\"msg_type\":" + std::to_string(r.msg_type) + ",\"app_type\":" + Quoted(r.app_type) +
           ",\"app_id\":" + Quoted(d.String("app_id").value_or("")) +
           ",\"session_id\":" + Quoted(d.String("session-id").value_or("")) +
           ",\"message_id\":" + Quoted(d.String("amqp-message-id").value_or("")) +
           ",\"acked\":" + (acked ? "true" : "false") + Problems(r.problems) + "}");
    } else if (!quiet_ || !r.problems.empty()) {
      Line("connection " + std::to_string(r.connection) + " registration: app_type \"" +
           r.app_type + "\", app_id \"" + d.String("app_id").value_or("") + "\", session-id \"" +
           d.String("session-id").value_or("") + "\", amqp-message-id " +
           d.String("amqp-message-id").value_or("?") + (acked ? "; acknowledged" : "") +
           TextProblems(r.problems));
    }
  }
  void OnRequestSent(int connection, uint64_t seq, const mpa_relay::Request& req) override {
    if (quiet_) return;
    const std::string title = seq < titles_.size() ? titles_[seq] : "";
    if (json_) {
      Line("{\"event\":\"request\",\"seq\":" + std::to_string(seq) +
           ",\"connection\":" + std::to_string(connection) +
           ",\"correlation_id\":" + (req.correlation_id ? Quoted(*req.correlation_id) : "null") +
           ",\"reply_to\":" + (req.reply_to ? Quoted(*req.reply_to) : "null") +
           ",\"expect_answer\":" + (req.expect_answer ? "true" : "false") +
           (title.empty() ? "" : ",\"title\":" + Quoted(title)) +
           ",\"message\":" + mpa_relay::MessageText(req.payload, true) + "}");
    } else {
      std::string head = ">> request " + std::to_string(seq) + " on connection " +
                         std::to_string(connection);
      if (!title.empty()) head += ": " + title;
      head += " (correlation " + req.correlation_id.value_or("none") + ", reply-to " +
              req.reply_to.value_or("none") + (req.expect_answer ? "" : ", no answer expected") +
              ")";
      Line(head);
      Raw(Indent(mpa_relay::MessageText(req.payload, false)));
    }
  }
  void OnAnswer(const mpa_relay::Answer& a) override {
    last_answer = a.at;
    if (keep_round_trips && a.request != 0) {
      round_trips_us.push_back(std::chrono::duration<double, std::micro>(a.round_trip).count());
    }
    const double ms = std::chrono::duration<double, std::milli>(a.round_trip).count();
    if (json_) {
      std::string headers;
      for (const auto& [k, v] : a.headers) {
        headers += (headers.empty() ? "" : ",") + Quoted(k) + ":" + Quoted(v);
      }
      Line("{\"event\":\"answer\",\"connection\":" + std::to_string(a.connection) +
           ",\"request\":" + std::to_string(a.request) + ",\"kind\":" + std::to_string(a.kind) +
           ",\"routing_key\":" + Quoted(a.routing_key) +
           ",\"content_type\":" + Quoted(a.content_type) + ",\"headers\":{" + headers + "}" +
           ",\"session_id\":" + Quoted(a.session_id) + ",\"message_id\":" + Quoted(a.message_id) +
           ",\"round_trip_ms\":" + std::to_string(ms) +
           ",\"message\":" + mpa_relay::MessageText(a.payload, true) + Problems(a.problems) + "}");
      return;
    }
    if (quiet_ && a.problems.empty()) return;
    std::string head = "<< answer";
    if (a.request != 0) head += " to request " + std::to_string(a.request);
    head += " on connection " + std::to_string(a.connection);
    if (a.request != 0) {
      char buf[32];
      std::snprintf(buf, sizeof buf, " after %.2f ms", ms);
      head += buf;
    }
    head += ": kind " + std::to_string(a.kind) + ", routing key \"" + a.routing_key +
            "\", correlation " + a.correlation_id.value_or("(none)") + TextProblems(a.problems);
    Line(head);
    if (!quiet_) Raw(Indent(mpa_relay::MessageText(a.payload, false)));
  }
  void OnClosed(int connection, bool by_peer, const std::string& reason) override {
    if (quiet_ && !by_peer) return;
    if (json_) {
      Line("{\"event\":\"closed\",\"connection\":" + std::to_string(connection) +
           ",\"by_peer\":" + (by_peer ? "true" : "false") + ",\"reason\":" + Quoted(reason) + "}");
    } else {
      Line("connection " + std::to_string(connection) + " " + reason);
    }
  }
  void OnProblem(int connection, const std::string& problem) override {
    if (json_) {
      Line("{\"event\":\"problem\",\"connection\":" + std::to_string(connection) +
           ",\"problem\":" + Quoted(problem) + "}");
    } else {
      Line("!! connection " + std::to_string(connection) + ": " + problem);
    }
  }

  void Action(const std::string& what, int connection) {
    if (json_) {
      Line("{\"event\":\"action\",\"action\":" + Quoted(what) +
           ",\"connection\":" + std::to_string(connection) + "}");
    } else if (!quiet_) {
      Line("== " + what + (connection > 0 ? " (connection " + std::to_string(connection) + ")" : ""));
    }
  }
  void Error(const std::string& what) {
    if (json_) {
      Line("{\"event\":\"error\",\"error\":" + Quoted(what) + "}");
    } else {
      Line("!! " + what);
    }
  }
  void Summary(const std::string& text, const std::string& json) {
    if (json_) {
      Line(json);
    } else {
      Line(text);
    }
  }

 private:
  std::string Stamp() const {
    char buf[32];
    std::snprintf(buf, sizeof buf, "[%8.3f] ",
                  std::chrono::duration<double>(Clock::now() - start_).count());
    return buf;
  }
  void Line(const std::string& text) {
    if (json_) {
      std::fputs(text.c_str(), stdout);
    } else {
      std::fputs((Stamp() + text).c_str(), stdout);
    }
    std::fputc('\n', stdout);
    std::fflush(stdout);
  }
  void Raw(const std::string& text) {
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
  }
  static std::string Problems(const std::vector<std::string>& problems) {
    if (problems.empty()) return "";
    std::string out = ",\"problems\":[";
    for (size_t i = 0; i < problems.size(); ++i) out += (i ? "," : "") + Quoted(problems[i]);
    return out + "]";
  }
  static std::string TextProblems(const std::vector<std::string>& problems) {
    std::string out;
    for (const auto& p : problems) out += "\n    !! " + p;
    return out;
  }

  bool json_;
  bool quiet_;
  Clock::time_point start_;
  std::vector<std::string> titles_;
};

struct Settings {
  uint16_t port = 9002;
  bool json = false;
  bool quiet = false;
  bool timeout_given = false;
  long timeout_s = 30;
  long wait_answers = -1;
  long window = 1;
  long repeat = 1;
  bool stats = false;
  std::optional<std::string> reply_to = std::string("mpa-relay");
  std::string correlation = "relay";
  bool ack = true;
  std::optional<std::pair<uint32_t, uint32_t>> mp_version;
  bool serve = false;
  bool use_stdin = false;
  std::string ready_file;
};

// Reads steps from standard input as they are typed.
class StdinSteps {
 public:
  StdinSteps(std::vector<Step>* steps, Printer* printer) : steps_(steps), printer_(printer) {}
  bool open() const { return open_; }
  void OnReadable() {
    char buf[4096];
    const ssize_t n = read(0, buf, sizeof buf);
    if (n <= 0) {
      open_ = false;
      Flush(true);
      return;
    }
    text_.append(buf, static_cast<size_t>(n));
    Flush(false);
  }

 private:
  // Parses what is complete: up to the last blank line or directive.
  void Flush(bool all) {
    size_t cut = all ? text_.size() : 0;
    if (!all) {
      const size_t blank = text_.rfind("\n\n");
      if (blank != std::string::npos) cut = blank + 2;
      // A directive line is complete as soon as its newline is there.
      size_t start = 0;
      while (start < text_.size()) {
        const size_t nl = text_.find('\n', start);
        if (nl == std::string::npos) break;
        if (text_[start] == '!' && (start == 0 || start <= cut || text_[start - 1] == '\n')) {
          // Everything before a directive is a finished block.
          cut = std::max(cut, nl + 1);
        }
        start = nl + 1;
      }
    }
    if (cut == 0) return;
    std::vector<Step> parsed;
    std::string error;
    if (!mpa_relay::ParseScript(text_.substr(0, cut), &parsed, &error)) {
      printer_->Error("stdin: " + error);
    } else {
      for (auto& s : parsed) steps_->push_back(std::move(s));
    }
    text_.erase(0, cut);
  }

  std::vector<Step>* steps_;
  Printer* printer_;
  std::string text_;
  bool open_ = true;
};

double Percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  const size_t idx = std::min(v.size() - 1, static_cast<size_t>(p * (v.size() - 1) + 0.5));
  return v[idx];
}

}  // namespace

int main(int argc, char** argv) {
  Settings s;
  std::vector<Step> steps;
  mpa_relay::Modifiers pending;

  auto need = [&](int& i) -> const char* {
    if (i + 1 >= argc) return nullptr;
    return argv[++i];
  };

  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    long n = 0;
    const char* v = nullptr;
    std::string error;
    if (a == "--help" || a == "-h") {
      std::fputs(kHelp, stdout);
      return kExitOk;
    } else if (a == "--port") {
      if (!(v = need(i)) || !ParseNumber(v, 1, 65535, &n)) return Usage("--port takes 1..65535");
      s.port = static_cast<uint16_t>(n);
    } else if (a == "--json") {
      s.json = true;
    } else if (a == "--quiet") {
      s.quiet = true;
    } else if (a == "--timeout") {
      if (!(v = need(i)) || !ParseNumber(v, 1, 86400 * 365, &n)) {
        return Usage("--timeout takes seconds");
      }
      s.timeout_s = n;
      s.timeout_given = true;
    } else if (a == "--wait-answers") {
      if (!(v = need(i)) || !ParseNumber(v, 0, 1L << 40, &n)) return Usage("--wait-answers takes a count");
      s.wait_answers = n;
    } else if (a == "--window") {
      if (!(v = need(i)) || !ParseNumber(v, 0, 1L << 30, &n)) return Usage("--window takes a count");
      s.window = n;
    } else if (a == "--repeat") {
      if (!(v = need(i)) || !ParseNumber(v, 1, 1L << 30, &n)) return Usage("--repeat takes a count");
      s.repeat = n;
    } else if (a == "--stats") {
      s.stats = true;
    } else if (a == "--reply-to") {
      if (!(v = need(i))) return Usage("--reply-to takes a name");
      s.reply_to = *v ? std::optional<std::string>(v) : std::nullopt;
    } else if (a == "--correlation") {
      if (!(v = need(i)) || !*v) return Usage("--correlation takes a prefix");
      s.correlation = v;
    } else if (a == "--no-ack") {
      s.ack = false;
    } else if (a == "--mp-version") {
      unsigned major = 0, minor = 0;
      char extra = 0;
      if (!(v = need(i)) || std::sscanf(v, "%u.%u%c", &major, &minor, &extra) != 2) {
        return Usage("--mp-version takes MAJOR.MINOR");
      }
      s.mp_version = std::make_pair(major, minor);
    } else if (a == "--serve") {
      s.serve = true;
    } else if (a == "--ready-file") {
      if (!(v = need(i)) || !*v) return Usage("--ready-file takes a path");
      s.ready_file = v;
    } else if (a == "--stdin") {
      s.use_stdin = true;
    } else if (a == "--send") {
      if (!(v = need(i))) return Usage("--send takes a message in text format");
      Step step;
      if (!mpa_relay::ParseRequest(v, &step, &error)) return Usage("--send: " + error);
      pending.ApplyTo(&step);
      steps.push_back(std::move(step));
    } else if (a == "--file") {
      if (!(v = need(i))) return Usage("--file takes a path");
      std::ifstream in(v);
      if (!in) return Usage(std::string("cannot read ") + v);
      std::stringstream text;
      text << in.rdbuf();
      std::vector<Step> parsed;
      if (!mpa_relay::ParseScript(text.str(), &parsed, &error)) {
        return Usage(std::string(v) + ": " + error);
      }
      bool first = true;
      for (auto& step : parsed) {
        if (first && step.kind == StepKind::kSend) {
          // Modifiers given on the command line apply to the file's first request.
          if (pending.no_answer) step.expect_answer = false;
          if (pending.split_at) step.split_at = pending.split_at;
          if (pending.batch) step.batch = pending.batch;
          pending = mpa_relay::Modifiers();
          first = false;
        }
        steps.push_back(std::move(step));
      }
    } else if (a.rfind("--", 0) == 0) {
      // Directives share their names with the file's '!' lines.
      std::string line = "!" + a.substr(2);
      static const char* const kWithArg[] = {"--split", "--batch", "--restart", "--malformed"};
      for (const char* w : kWithArg) {
        if (a == w) {
          if (!(v = need(i))) return Usage(a + " takes an argument");
          line += std::string(" ") + v;
        }
      }
      if (!mpa_relay::ParseDirective(line, &steps, &pending, &error)) {
        if (error.rfind("unknown directive", 0) == 0) return Usage("unknown option " + a);
        return Usage(error);
      }
    } else {
      return Usage("unexpected argument \"" + a + "\"");
    }
  }
  if (pending.no_answer || pending.split_at || pending.batch) {
    return Usage("--no-answer, --split and --batch must come before a request");
  }

  // Repeat the steps as given.
  if (s.repeat > 1) {
    const std::vector<Step> once = steps;
    for (long r = 1; r < s.repeat; ++r) steps.insert(steps.end(), once.begin(), once.end());
  }
  const bool script_given = !steps.empty() || s.use_stdin;

  Printer printer(s.json, s.quiet);
  StdinSteps stdin_steps(&steps, &printer);

  mpa_relay::RelayOptions options;
  options.port = s.port;
  options.ack = s.ack;
  options.mp_version = s.mp_version;
  options.keep_history = false;
  mpa_relay::Relay relay(options, &printer);

  std::signal(SIGINT, OnSignal);
  std::signal(SIGTERM, OnSignal);
  std::signal(SIGPIPE, SIG_IGN);

  std::string error;
  if (!relay.Listen(&error)) {
    printer.Error("cannot listen: " + error);
    return kExitListen;
  }
  if (s.use_stdin) relay.WatchInput(0, [&]() { stdin_steps.OnReadable(); });
  if (!s.ready_file.empty()) {
    std::ofstream ready(s.ready_file, std::ios::trunc);
    ready << relay.port() << "\n";
    if (!ready) {
      printer.Error("cannot write " + s.ready_file);
      return kExitUsage;
    }
  }

  printer.keep_round_trips = s.stats;
  const Clock::time_point started = Clock::now();
  const Clock::time_point deadline =
      (!script_given && !s.timeout_given) ? Clock::time_point::max()
                                          : started + std::chrono::seconds(s.timeout_s);

  size_t next = 0;
  uint64_t expected = 0;
  uint64_t correlation_seq = 0;
  size_t await_base = 0;
  bool awaiting = false;
  bool step_failed = false;
  Clock::time_point relisten_at{};
  bool relisten_pending = false;
  Clock::time_point first_send{};

  auto in_window = [&]() {
    return s.window == 0 || relay.outstanding() < static_cast<size_t>(s.window);
  };
  auto make_request = [&](const Step& step) {
    mpa_relay::Request req;
    req.payload = step.payload;
    req.correlation_id = s.correlation + "-" + std::to_string(++correlation_seq);
    req.reply_to = s.reply_to;
    req.expect_answer = step.expect_answer;
    return req;
  };

  // Does the step at `next` if it can now; returns true when it advanced.
  auto try_step = [&]() -> bool {
    Step& step = steps[next];
    const int current = relay.current_connection();
    const bool synced = relay.outstanding() == 0;
    switch (step.kind) {
      case StepKind::kSend: {
        if (current == 0 || !in_window()) return false;
        if (first_send == Clock::time_point{}) first_send = Clock::now();
        const uint64_t seq = relay.requests_sent() + 1;
        if (step.batch > 1) {
          std::vector<mpa_relay::Request> batch;
          size_t k = next;
          for (; k < steps.size() && batch.size() < step.batch && steps[k].kind == StepKind::kSend;
               ++k) {
            printer.Note(seq + batch.size(), steps[k].title);
            batch.push_back(make_request(steps[k]));
            expected += steps[k].expect_answer ? 1 : 0;
          }
          relay.SendBatch(batch);
          next = k;
          return true;
        }
        printer.Note(seq, step.title);
        expected += step.expect_answer ? 1 : 0;
        if (step.split_at > 0) {
          relay.SendSplit(make_request(step), step.split_at, std::chrono::milliseconds(50));
        } else {
          relay.Send(make_request(step));
        }
        ++next;
        return true;
      }
      case StepKind::kSync:
        if (!synced) return false;
        ++next;
        return true;
      case StepKind::kClose:
        if (!synced || current == 0) return false;
        printer.Action("CLOSE sent", current);
        relay.SendClose(current);
        ++next;
        return true;
      case StepKind::kCloseStale: {
        if (!synced || current == 0) return false;
        const std::vector<int> old = relay.closed_by_message();
        if (old.empty()) {
          printer.Error("--close-stale: no older connection is open (use --close first)");
          step_failed = true;
          ++next;
          return true;
        }
        printer.Action("stale CLOSE sent", old.back());
        relay.SendClose(old.back());
        ++next;
        return true;
      }
      case StepKind::kDrop:
        if (!synced || current == 0) return false;
        printer.Action("dropping the connection", current);
        relay.Drop(current);
        ++next;
        return true;
      case StepKind::kRestart:
        if (!synced) return false;
        printer.Action("restart: listener and connections closed, down for " +
                           std::to_string(step.number) + " ms",
                       0);
        relay.DropAll();
        relay.StopListening();
        relisten_at = Clock::now() + std::chrono::milliseconds(step.number);
        relisten_pending = true;
        ++next;
        return true;
      case StepKind::kMalformed: {
        if (!synced || current == 0) return false;
        mpa_relay::Step probe;
        std::string why;
        mpa_relay::ParseRequest("message_type: MT_SOFTWARE_STATUS operation_id: \"malformed\"",
                                &probe, &why);
        const auto frame =
            mpa_relay::MalformedFrame(step.word, relay.app_type(current), probe.payload);
        const bool answered = mpa_relay::MalformedKindIsAnswered(step.word);
        printer.Action("malformed frame \"" + step.word + "\" sent", current);
        relay.SendRaw(*frame, answered, current);
        expected += answered ? 1 : 0;
        if (step.word == "half-frame") {
          relay.Flush(current, Clock::now() + std::chrono::seconds(5));
          relay.Drop(current);
        }
        ++next;
        return true;
      }
      case StepKind::kAwaitRegistration:
        if (!awaiting) {
          awaiting = true;
          await_base = printer.registrations_seen;
        }
        if (printer.registrations_seen <= await_base) return false;
        awaiting = false;
        ++next;
        return true;
    }
    return false;
  };

  // The main loop.
  for (;;) {
    if (g_stop) break;
    if (relisten_pending && Clock::now() >= relisten_at) {
      relisten_pending = false;
      if (!relay.Listen(&error)) {
        printer.Error("cannot listen again: " + error);
        return kExitListen;
      }
    }
    while (next < steps.size() && !relisten_pending && try_step()) {
    }
    const bool steps_done = next >= steps.size() && !(s.use_stdin && stdin_steps.open());
    const uint64_t want = s.wait_answers >= 0 ? static_cast<uint64_t>(s.wait_answers) : expected;
    if (script_given && steps_done && relay.answers_received() >= want && !s.serve) break;
    if (Clock::now() >= deadline) {
      if (!script_given || s.serve) break;  // served the time asked for
      step_failed = step_failed || !steps_done;
      break;
    }
    auto wait = std::chrono::milliseconds(200);
    if (relisten_pending) {
      wait = std::min(wait, std::chrono::duration_cast<std::chrono::milliseconds>(
                                relisten_at - Clock::now()) +
                                std::chrono::milliseconds(1));
    }
    if (deadline != Clock::time_point::max()) {
      wait = std::min(wait, std::chrono::duration_cast<std::chrono::milliseconds>(
                                deadline - Clock::now()) +
                                std::chrono::milliseconds(1));
    }
    relay.Poll(std::max(wait, std::chrono::milliseconds(0)));
  }

  // Answers the whole script asks for, also those of steps never reached.
  uint64_t planned = 0;
  for (const Step& step : steps) {
    if (step.kind == StepKind::kSend && step.expect_answer) ++planned;
    if (step.kind == StepKind::kMalformed && mpa_relay::MalformedKindIsAnswered(step.word)) ++planned;
  }
  const uint64_t want = s.wait_answers >= 0 ? static_cast<uint64_t>(s.wait_answers) : planned;
  const uint64_t got = relay.answers_received();
  const size_t problems = relay.problems().size();
  const bool missing = got < want || next < steps.size();

  if (s.stats) {
    const double secs =
        first_send == Clock::time_point{} || printer.last_answer <= first_send
            ? 0
            : std::chrono::duration<double>(printer.last_answer - first_send).count();
    const double rate = secs > 0 ? static_cast<double>(got) / secs : 0;
    char text[256];
    std::snprintf(text, sizeof text,
                  "stats: %zu round trips, median %.1f us, p99 %.1f us, %.0f requests/s "
                  "(window %ld)",
                  printer.round_trips_us.size(), Percentile(printer.round_trips_us, 0.5),
                  Percentile(printer.round_trips_us, 0.99), rate, s.window);
    char json[256];
    std::snprintf(json, sizeof json,
                  "{\"event\":\"stats\",\"round_trips\":%zu,\"median_us\":%.1f,\"p99_us\":%.1f,"
                  "\"requests_per_s\":%.0f,\"window\":%ld}",
                  printer.round_trips_us.size(), Percentile(printer.round_trips_us, 0.5),
                  Percentile(printer.round_trips_us, 0.99), rate, s.window);
    printer.Summary(text, json);
  }
  char text[256];
  std::snprintf(text, sizeof text,
                "done: %llu requests, %llu answers (%llu expected, %zu lost with closed "
                "connections), %zu wire problems%s",
                static_cast<unsigned long long>(relay.requests_sent()),
                static_cast<unsigned long long>(got), static_cast<unsigned long long>(want),
                relay.lost_answers(), problems,
                missing && script_given ? ", answers or steps missing" : "");
  char json[256];
  std::snprintf(json, sizeof json,
                "{\"event\":\"done\",\"requests\":%llu,\"answers\":%llu,\"expected\":%llu,"
                "\"lost\":%zu,\"problems\":%zu,\"complete\":%s}",
                static_cast<unsigned long long>(relay.requests_sent()),
                static_cast<unsigned long long>(got), static_cast<unsigned long long>(want),
                relay.lost_answers(), problems, missing && script_given ? "false" : "true");
  printer.Summary(text, json);

  if (script_given && (missing || step_failed)) return kExitMissing;
  if (problems > 0) return kExitLayout;
  return kExitOk;
}
