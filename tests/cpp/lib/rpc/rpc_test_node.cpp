// rpc_test_node: one RPC node with the test service in its own process, for
// the end-to-end tests.
//
//   rpc_test_node --id node-s --listen unix:///tmp/x/s.sock
//       [--connect URL]       a gateway connection to URL, made before "ready"
//       [--forward]           relay streams for services it does not have
//       [--no-service]        do not offer the test service
//       [--tls CERT KEY PEER] TLS with this certificate, trusting PEER's
//
// Prints "ready <id>" once it listens (and is connected), then the log lines
// the tests look for, and ends when its standard input closes.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "cpp/lib/common/logger.h"
#include "cpp/lib/common/logger_testing.h"
#include "rpc_node.h"
#include "rpc_tls.h"

namespace {

// Lines of the log that tell the tests what the node did.
const char* const kShown[] = {"read suspended", "read resumed", "Queuing frame",
                              "Sending queued frame", "Releasing destination"};

// The node's test service, told when its reading is held back. Set before
// any connection exists and kept until the process ends.
std::shared_ptr<zel::rpc::testing::TestServiceImpl> g_service;

void ShowSome(int /*priority*/, const char* line) {
  // A Collect observer holding on purpose lets go once reading is held back.
  if (g_service && std::strstr(line, "read suspended") != nullptr) g_service->ReleaseHold();
  for (const char* needle : kShown) {
    if (std::strstr(line, needle) != nullptr) {
      std::printf("log: %s\n", line);
      std::fflush(stdout);
      return;
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  using namespace zel::rpc;
  using namespace zel::rpc::testing;
  std::string id, connect, cert, key, peer;
  std::vector<std::string> listen;
  bool forward = false, serve = true;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--id" && i + 1 < argc) {
      id = argv[++i];
    } else if (a == "--listen" && i + 1 < argc) {
      listen.push_back(argv[++i]);
    } else if (a == "--connect" && i + 1 < argc) {
      connect = argv[++i];
    } else if (a == "--forward") {
      forward = true;
    } else if (a == "--no-service") {
      serve = false;
    } else if (a == "--tls" && i + 3 < argc) {
      cert = argv[++i];
      key = argv[++i];
      peer = argv[++i];
    } else {
      std::cerr << "rpc_test_node: bad argument " << a << "\n";
      return 2;
    }
  }
  // Every line passes by the filter, away from syslog; only the few the
  // tests look for are shown.
  zel::log_testing::SetUpLoggerForTest("TRIVIA", "DEVLOG", nullptr);
  zel::g_rpcLogCeiling = zel::kLogDebug;
  zel::log_testing::SetSyslogSinkForTest(&ShowSome);

  std::shared_ptr<zel::net::NetSecurityManager> tls;
  if (!cert.empty() && !(tls = PinnedTls(cert, key, peer))) {
    std::cerr << "rpc_test_node: TLS files do not load\n";
    return 2;
  }
  RpcNode node(id, serve, tls);
  g_service = node.service;
  node.transport()->SetForwardingEnabled(forward);
  for (const std::string& endpoint : listen) {
    if (auto ec = node.Listen(endpoint)) {
      std::cerr << "rpc_test_node: can't listen on " << endpoint << ": " << ec.message() << "\n";
      return 1;
    }
  }
  if (!connect.empty()) {
    ConnectionOptions gateway;
    gateway.gateway = ConnectionOptions::Gateway{true, true};
    auto [ec, connection] = node.Connect(connect, gateway);
    if (ec) {
      std::cerr << "rpc_test_node: can't connect to " << connect << ": " << ec.message() << "\n";
      return 1;
    }
  }
  std::printf("ready %s\n", id.c_str());
  std::fflush(stdout);
  char c;
  while (read(0, &c, 1) > 0) {
  }
  return 0;
}
