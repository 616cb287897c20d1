// TLS against Debian's openssl s_server and s_client, with certificates made
// by openssl req for each run: pinning self-signed peers by digest, chains to
// a trusted CA with expired certificates under each policy, peers without a
// certificate, peers that speak only TLS 1.3 or 1.1, and the cipher and
// protocol that s_client sees. The validation decisions for dates are also
// driven directly, through a store of our own with its clock set.
#include "cpp/lib/net/net_security_context.h"

#include <cstring>

#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <boost/asio/ssl/context.hpp>
#include <gtest/gtest.h>

#include "cpp/lib/net/crypto/random_device.h"
#include "cpp/lib/net/error_tags.h"
#include "cpp/lib/net/x509_certificate.h"
#include "net_test_rig.h"
#include "support/child_process.h"
#include "support/private_network.h"
#include "support/temp_dir.h"

namespace zel {
namespace net {
namespace testing {
namespace {

using Policy = CertificateValidationPolicy::Policy;
using zel::testing::ChildProcess;
using zel::testing::Shell;

// Keys and certificates of one test run: a self-signed server, a self-signed
// client, a CA with a valid and an expired server certificate.
class Pki {
 public:
  Pki() {
    ok_ = SelfSigned("self") && SelfSigned("client") && SelfSigned("ca") &&
          Signed("leaf", "30") && Signed("expired", "-1");
  }
  bool ok() const { return ok_; }
  std::string Cert(const std::string& name) const { return dir_.path() + "/" + name + ".pem"; }
  std::string Key(const std::string& name) const { return dir_.path() + "/" + name + ".key"; }
  Sha256Digest Digest(const std::string& name) const {
    Sha256Digest d{};
    X509CertificatePtr cert = X509Certificate::LoadPem(Cert(name));
    EXPECT_TRUE(cert && !cert->Sha256(&d));
    return d;
  }

 private:
  std::string KeyOption(const std::string& name) const {
    return "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout " + Key(name) +
           " -subj /CN=" + name;
  }
  bool SelfSigned(const std::string& name) {
    return Shell("openssl req -x509 " + KeyOption(name) + " -out " + Cert(name) +
                 " -days 30 2>/dev/null");
  }
  bool Signed(const std::string& name, const std::string& days) {
    const std::string csr = dir_.path() + "/" + name + ".csr";
    return Shell("openssl req " + KeyOption(name) + " -out " + csr + " 2>/dev/null") &&
           Shell("openssl x509 -req -in " + csr + " -CA " + Cert("ca") + " -CAkey " + Key("ca") +
                 " -CAcreateserial -days " + days + " -out " + Cert(name) + " 2>/dev/null");
  }

  zel::testing::TempDir dir_;
  bool ok_ = false;
};

class TlsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (zel::testing::EnterPrivateNetwork()) pki_ = new Pki;
  }
  static void TearDownTestSuite() {
    delete pki_;
    pki_ = nullptr;
  }
  void SetUp() override {
    if (!pki_ || !pki_->ok()) GTEST_SKIP() << "needs root, iproute2 and openssl";
  }

  // A context with this side's own certificate, trusting what is given.
  RefPtr<NetSecurityContext> Context(const std::string& own, const std::vector<std::string>& digests,
                                     const std::string& trustedCa = "",
                                     CertificateValidationPolicy policy = {}) {
    NetSecurityContext::Builder b;
    if (!own.empty()) {
      EXPECT_FALSE(b.UseCertificate(X509Certificate::LoadPem(pki_->Cert(own))));
      EXPECT_FALSE(b.UsePrivateKeyFile(pki_->Key(own)));
    }
    for (const std::string& d : digests) b.AddDigest(pki_->Digest(d));
    if (!trustedCa.empty()) EXPECT_FALSE(b.AddCertificate(X509Certificate::LoadPem(pki_->Cert(trustedCa))));
    b.SetPolicy(policy);
    return b.Build();
  }

  // openssl s_server on 127.0.0.1:`port` with `cert`, ready for one client.
  std::unique_ptr<ChildProcess> Server(int port, const std::string& cert,
                                       std::vector<std::string> extra = {}) {
    std::vector<std::string> argv = {"openssl", "s_server", "-accept", "127.0.0.1:" + std::to_string(port),
                                     "-cert", pki_->Cert(cert), "-key", pki_->Key(cert), "-naccept", "1"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    auto server = std::make_unique<ChildProcess>(argv);
    EXPECT_TRUE(server->WaitForOutput("ACCEPT")) << server->Output();
    return server;
  }

  SocketOptions Using(const std::string& contextId) {
    SocketOptions options;
    options.security_context_id = contextId;
    return options;
  }

  static Pki* pki_;
  NetLogCapture log_;
  NetRig rig_;
};

Pki* TlsTest::pki_ = nullptr;

TEST_F(TlsTest, SelfSignedServerIsTrustedOnlyByItsDigest) {
  const std::string hex = ToHex(pki_->Digest("self"));
  rig_.security->AddClientContext("pinned", Context("", {"self"}));
  rig_.security->AddClientContext("other", Context("", {"client"}));
  struct Row {
    const char* context;
    bool passes;
    std::string line;
  };
  const Row rows[] = {
      {"pinned", true, "Certificate validation: found SHA256 digest '" + hex + "' in local trust store"},
      {"other", false, "Certificate validation: couldn't find SHA256 digest '" + hex + "' in local trust store"},
      // The default context trusts nobody.
      {"", false, "couldn't find SHA256 digest '" + hex + "'"},
  };
  int port = 4430;
  for (const Row& r : rows) {
    SCOPED_TRACE(r.context);
    auto server = Server(++port, "self");
    ConnectOutcome out = rig_.Connect("ssl://127.0.0.1:" + std::to_string(port), Using(r.context));
    ASSERT_TRUE(out.done);
    EXPECT_EQ(!out.status, r.passes) << out.status.message();
    EXPECT_TRUE(log_.WaitFor(r.line));
    if (r.passes) {
      const ConnectionInfo info = out.connection->info();
      EXPECT_EQ(ToString(info.peer_auth), "{certificate sha256 '" + hex + "'}");
      EXPECT_EQ(info.local_endpoint.rfind("ssl-tcp://127.0.0.1:", 0), 0u) << info.local_endpoint;
      EXPECT_FALSE(WriteAll(out.connection, "hello over tls\n"));
      EXPECT_TRUE(server->WaitForOutput("hello over tls"));
    } else {
      EXPECT_NE(log_.Find("Certificate validation failed: 18-").find(Tagged(kTagNet1111)),
                std::string::npos);
    }
    log_.Clear();
  }
}

TEST_F(TlsTest, ExpiredCertificateInATrustedChainFollowsThePolicy) {
  struct Row {
    Policy policy;
    bool passes;
    int level;  // of the override line, 0 for none
  };
  const Row rows[] = {
      {Policy::allow, true, 4 /*WARN: priority 4*/},
      {Policy::allow_without_warning, true, 7 /*DEBUG*/},
      {Policy::reject, false, 0},
  };
  int port = 4440;
  for (const Row& r : rows) {
    SCOPED_TRACE(ToString(r.policy));
    CertificateValidationPolicy policy;
    policy.Cert_HasExpired = r.policy;
    rig_.security->AddClientContext("chain", Context("", {}, "ca", policy));
    auto server = Server(++port, "expired");
    ConnectOutcome out = rig_.Connect("ssl://127.0.0.1:" + std::to_string(port), Using("chain"));
    ASSERT_TRUE(out.done);
    EXPECT_EQ(!out.status, r.passes) << out.status.message();
    const std::string line = std::string("Certificate validation failed, overriding with policy '") +
                             ToString(r.policy) + "': 10-certificate has expired";
    int priority = 0;
    for (const auto& [p, text] : log_.Records()) {
      if (text.find(line) != std::string::npos) priority = p & 7;  // without the facility
    }
    EXPECT_EQ(priority, r.level);
    if (!r.passes) EXPECT_TRUE(log_.WaitFor("Certificate validation failed: 10-certificate has expired"));
    log_.Clear();
  }
}

TEST_F(TlsTest, ServerThatSpeaksNoTls12IsRefused) {
  rig_.security->AddClientContext("pinned", Context("", {"self"}));
  const std::vector<std::vector<std::string>> peers = {
      {"-tls1_3"},
      {"-tls1_1", "-cipher", "DEFAULT@SECLEVEL=0"},
  };
  int port = 4450;
  for (const auto& extra : peers) {
    SCOPED_TRACE(extra[0]);
    auto server = Server(++port, "self", extra);
    ConnectOutcome out = rig_.Connect("ssl://127.0.0.1:" + std::to_string(port), Using("pinned"));
    ASSERT_TRUE(out.done);
    EXPECT_TRUE(out.status);
    EXPECT_EQ(out.status.category().name(), std::string("asio.ssl")) << out.status.message();
  }
}

// Our server against s_client: a client certificate is required, and the
// protocol and cipher are the ones the context allows.
TEST_F(TlsTest, ServerAgainstOpensslClient) {
  rig_.security->AddServerContext("srv", Context("self", {"client"}));
  auto accepted = rig_.Listen("ssl://127.0.0.1:4460", Using("srv"));
  ASSERT_TRUE(accepted);
  struct Row {
    const char* name;
    std::vector<std::string> extra;
    bool passes;
    std::string seen;  // in s_client's output
  };
  const std::vector<std::string> withCert = {"-cert", pki_->Cert("client"), "-key", pki_->Key("client")};
  auto plus = [&](std::vector<std::string> a) {
    a.insert(a.end(), withCert.begin(), withCert.end());
    return a;
  };
  const Row rows[] = {
      {"with certificate", withCert, true, "Cipher is ECDHE-ECDSA-AES256-GCM-SHA384"},
      {"without certificate", {}, false, "alert"},
      {"tls 1.3 only", plus({"-tls1_3"}), false, "alert"},
      {"cipher outside the list", plus({"-cipher", "ECDHE-ECDSA-CHACHA20-POLY1305"}), false, "alert"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    std::vector<std::string> argv = {"openssl", "s_client", "-connect", "127.0.0.1:4460"};
    argv.insert(argv.end(), r.extra.begin(), r.extra.end());
    ChildProcess client(argv);
    if (r.passes) {
      ConnectionPtr c = accepted->Next();
      ASSERT_TRUE(c);
      EXPECT_EQ(ToString(c->info().peer_auth),
                "{certificate sha256 '" + ToHex(pki_->Digest("client")) + "'}");
      EXPECT_FALSE(WriteAll(c, "from the server\n"));
      EXPECT_TRUE(client.WaitForOutput("from the server"));
      EXPECT_TRUE(client.WaitForOutput("Protocol  : TLSv1.2")) << client.Output();
    } else {
      // The accept handler ran for the descriptor; the handshake's failure
      // reaches the connect handler.
      EXPECT_TRUE(accepted->NextError());
      EXPECT_TRUE(log_.WaitFor(Tagged(kTagNet4) + "] NetTransport"));
    }
    client.CloseInput();
    EXPECT_TRUE(client.WaitExit().has_value());
    EXPECT_NE(client.Output().find(r.seen), std::string::npos) << client.Output();
    log_.Clear();
  }
}

// Both ends ours, over a local socket, each pinning the other.
TEST_F(TlsTest, LocalTlsBothEndsPinned) {
  rig_.security->AddServerContext("srv", Context("self", {"client"}));
  rig_.security->AddClientContext("cli", Context("client", {"self"}));
  auto accepted = rig_.Listen("ssl-unix:///run/netns/tls.sock", Using("srv"));
  ASSERT_TRUE(accepted);
  ConnectOutcome out = rig_.Connect("ssl-unix:///run/netns/tls.sock", Using("cli"));
  ASSERT_TRUE(out.done);
  ASSERT_FALSE(out.status) << out.status.message();
  ConnectionPtr server = accepted->Next();
  ASSERT_TRUE(server);
  const std::string big(200000, 'x');
  EXPECT_FALSE(WriteAll(out.connection, big));
  EXPECT_EQ(Read(server, big.size()).data, big);
  EXPECT_EQ(server->info().peer_endpoint.rfind("ssl-unix://", 0), 0u) << server->info().peer_endpoint;
}

// The date decisions, through the validation callback of a context, on a
// store whose clock is set before and after the leaf's validity.
TEST_F(TlsTest, DateErrorsFollowThePolicy) {
  X509CertificatePtr ca = X509Certificate::LoadPem(pki_->Cert("ca"));
  X509CertificatePtr leaf = X509Certificate::LoadPem(pki_->Cert("leaf"));
  ASSERT_TRUE(ca && leaf);
  const time_t now = time(nullptr);
  struct Row {
    time_t at;
    Policy notYetValid;
    Policy expired;
    bool passes;
  };
  const Row rows[] = {
      {now - 86400, Policy::reject, Policy::allow, false},
      {now - 86400, Policy::allow, Policy::reject, true},
      {now + 40 * 86400, Policy::allow, Policy::reject, false},
      {now + 40 * 86400, Policy::reject, Policy::allow_without_warning, true},
      {now, Policy::reject, Policy::reject, true},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::to_string(r.at - now));
    CertificateValidationPolicy policy;
    policy.Cert_NotYetValid = r.notYetValid;
    policy.Cert_HasExpired = r.expired;
    RefPtr<NetSecurityContext> ctx = Context("", {}, "ca", policy);
    SSL* ssl = SSL_new(ctx->native_context().native_handle());
    X509_STORE_CTX* store = X509_STORE_CTX_new();
    ASSERT_EQ(X509_STORE_CTX_init(store, SSL_CTX_get_cert_store(ctx->native_context().native_handle()),
                                  leaf->get(), nullptr),
              1);
    X509_STORE_CTX_set_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx(), ssl);
    X509_STORE_CTX_set_verify_cb(store, &NetSecurityContext::VerifyCallback);
    X509_VERIFY_PARAM_set_time(X509_STORE_CTX_get0_param(store), r.at);
    EXPECT_EQ(X509_verify_cert(store) == 1, r.passes);
    X509_STORE_CTX_free(store);
    SSL_free(ssl);
  }
  EXPECT_EQ(ToString(CertificateValidationPolicy()),
            "CertificateValidationPolicy{Cert_NotYetValid: reject, Cert_HasExpired: reject}");
  EXPECT_EQ(ToString(static_cast<Policy>(7)), std::string("<CertificateValidationPolicy::Policy::INVALID>"));
}

TEST_F(TlsTest, BadCertificateAndKeyFiles) {
  zel::testing::TempDir dir;
  const std::string empty = dir.WriteFile("empty.pem", "");
  const std::string text = dir.WriteFile("text.pem", "not a certificate\n");
  struct Row {
    std::string path;
    const char* tag;
    const char* what;
  };
  const Row rows[] = {
      {dir.path() + "/missing.pem", kTagNet1132, "BIO - failed to read from file"},
      {empty, kTagNet1109, "PEM - failed to read X509"},
      {text, kTagNet1109, "PEM - failed to read X509"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.path);
    EXPECT_FALSE(X509Certificate::LoadPem(r.path));
    EXPECT_NE(log_.Find(r.what).find(Tagged(r.tag)), std::string::npos) << log_.Find(r.what);
    NetSecurityContext::Builder b;
    EXPECT_TRUE(b.UsePrivateKeyFile(r.path));
    EXPECT_NE(log_.Find("failed to use private key").find(Tagged(kTagNet1120)), std::string::npos);
    log_.Clear();
  }
  EXPECT_FALSE(X509Certificate::FromPem("garbage"));
  // A failure that leaves OpenSSL's queue empty is a failure all the same.
  EXPECT_TRUE(NetSecurityContext::Builder().AddCertificate(nullptr));
  // The random device fills what it is given, differently each time.
  uint8_t first[32] = {};
  uint8_t second[32] = {};
  EXPECT_FALSE(crypto::fips_random_device().Fill(first, sizeof first));
  EXPECT_FALSE(crypto::fips_random_device().Fill(second, sizeof second));
  EXPECT_NE(std::memcmp(first, second, sizeof first), 0);
  // A key that is not the certificate's own is refused as well.
  NetSecurityContext::Builder b;
  EXPECT_FALSE(b.UseCertificate(X509Certificate::LoadPem(pki_->Cert("self"))));
  EXPECT_TRUE(b.UsePrivateKeyFile(pki_->Key("client")));
}

}  // namespace
}  // namespace testing
}  // namespace net
}  // namespace zel
