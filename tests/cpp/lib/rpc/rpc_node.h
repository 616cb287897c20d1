// One RPC node for tests: a provider with two threads and the test service,
// optionally listening, with blocking helpers that get connections and stubs
// with a deadline. The same node runs in-process and in rpc_test_node, the
// process the end-to-end tests start.
//
//   RpcNode server("node-s");
//   server.Listen("unix://" + dir.path() + "/s.sock");
//   RpcNode client("node-c");
//   auto stub = client.Stub<TestService::Stub>("service://orvane.zel.test.TestService");
#ifndef ZEL_TESTS_CPP_LIB_RPC_RPC_NODE_H_
#define ZEL_TESTS_CPP_LIB_RPC_RPC_NODE_H_

#include <future>
#include <memory>
#include <string>

#include <boost/property_tree/ptree.hpp>

#include "cpp/lib/common/asio_dispatcher.h"
#include "cpp/lib/rpc/method.h"
#include "cpp/lib/rpc/rpc_transport.h"
#include "cpp/lib/rpc/stub_factory.h"
#include "cpp/lib/rpc/zel_rpc_provider.h"
#include "support/wait.h"
#include "test_service.h"

namespace zel {
namespace rpc {
namespace testing {

class RpcNode {
 public:
  // `endpointId` is announced to peers; `serve` registers the test service.
  explicit RpcNode(const std::string& endpointId = "", bool serve = true,
                   std::shared_ptr<net::SecurityManager> security = nullptr)
      : provider(AsioZelRpcProvider::Create(boost::property_tree::ptree(), {}, std::move(security))),
        service(std::make_shared<TestServiceImpl>(provider->GetTimers())) {
    if (!endpointId.empty()) transport()->AddLocalEndpointId(endpointId);
    if (serve) provider->GetRegistry()->RegisterService(service);
    provider->Run(2, false);
  }

  RpcTransport* transport() const { return provider->GetTransport().get(); }

  boost::system::error_code Listen(const std::string& endpoint,
                                   const ConnectionOptions& options = {}) {
    return transport()->Listen(endpoint, options, nullptr);
  }

  // A connection to `url`, or the error, within the deadline.
  std::pair<boost::system::error_code, boost::shared_ptr<RpcConnection>> Connect(
      const std::string& url, const ConnectionOptions& options = {}) {
    using Result = std::pair<boost::system::error_code, boost::shared_ptr<RpcConnection>>;
    auto done = std::make_shared<std::promise<Result>>();
    transport()->GetConnection(url, options,
                               [done](const boost::system::error_code& ec,
                                      const boost::shared_ptr<RpcConnection>& c) {
                                 done->set_value({ec, c});
                               });
    auto f = done->get_future();
    if (f.wait_for(zel::testing::kDeadline) != std::future_status::ready) {
      return {boost::system::error_code(ETIMEDOUT, boost::system::generic_category()), nullptr};
    }
    return f.get();
  }

  // A stub of `S` at `url` by the stub factory, or the error.
  template <class S>
  std::pair<boost::system::error_code, std::shared_ptr<S>> Stub(
      const std::string& url, int64_t timeoutMs = 10000,
      RetryPolicy policy = RetryPolicy(20, 200, 2.0)) {
    using Result = std::pair<boost::system::error_code, std::shared_ptr<S>>;
    auto done = std::make_shared<std::promise<Result>>();
    auto creator = StubFactory(provider).MakeCreator<S>(url, ChannelPriority::NORMAL, timeoutMs,
                                                        policy);
    creator->Create([done](const boost::system::error_code& ec, std::shared_ptr<S> stub) {
      done->set_value({ec, std::move(stub)});
    });
    auto f = done->get_future();
    if (f.wait_for(zel::testing::kDeadline) != std::future_status::ready) {
      return {boost::system::error_code(ETIMEDOUT, boost::system::generic_category()), nullptr};
    }
    return f.get();
  }

  std::shared_ptr<AsioZelRpcProvider> provider;
  std::shared_ptr<TestServiceImpl> service;
};

}  // namespace testing
}  // namespace rpc
}  // namespace zel

#endif  // ZEL_TESTS_CPP_LIB_RPC_RPC_NODE_H_
