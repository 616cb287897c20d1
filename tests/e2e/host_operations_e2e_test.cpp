// MT_CREATE_USER on every host type, for real: the agent in a sandbox that
// shows it that host type runs its user script with the machine's own
// account commands against the sandbox's /etc and /home (on the Ulm
// hypervisor, the interpreter stand-in with the host modules of
// tests/fakes/hosts/ulm). Each case has a sandbox and an agent of its own,
// and checks the answers, the accounts, and that the scratch of the scripts
// in /tmp is gone while a neighbour stays.
#include <chrono>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "e2e/agent_harness.h"
#include "orvane/zel/dorn/dorn_fabric_message.pb.h"

namespace zel {
namespace e2e {
namespace {

using namespace std::chrono_literals;
namespace dorn = orvane::zel::dorn;

std::string HostText(const std::string& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Runs a shell script in the sandbox and returns its output.
std::string Sh(AgentHarness& h, const std::string& script) {
  std::string out;
  EXPECT_TRUE(h.sandbox().Run({"sh", "-c", script}, 20s, &out).Success()) << script;
  return out;
}

struct User {
  std::string name, password;
  dorn::Status expected;
};

struct HostCase {
  const char* name;
  std::vector<std::string> host;                // fakes first on the PATH
  std::map<std::string, std::string> standins;  // more stand-ins: name, script
  std::map<std::string, std::string> env;       // of the agent
  std::string setup;                            // shell script before the requests
  std::vector<User> users;                      // requests, in order
  std::function<void(AgentHarness&)> check;
};

std::string Fake(const std::string& path) { return std::string(ZEL_FAKE_HOSTS_DIR) + "/" + path; }

const std::vector<std::string> kUbuntu = {Fake("ubuntu/uname"), Fake("ubuntu/lsb_release")};
const std::vector<std::string> kRhel = {Fake("rhel/uname"), Fake("rhel/lsb_release"), Fake("rhel/rpmquery")};
const std::vector<std::string> kUlm = {Fake("ulm/python"), Fake("ulm/ulmcli"), Fake("ulm/ulmcfg-advcfg")};
const char kUlmUname[] = "#!/bin/sh\necho 'Ulmcore 7.0.3'\n";

std::vector<std::string> HstCalls(AgentHarness& h) {
  std::vector<std::string> calls;
  for (const auto& c : h.sandbox().StandinCalls("hst")) calls.push_back(c);
  return calls;
}

const HostCase kCases[] = {
    {"UbuntuMakesASudoUserAndReplacesItOnTheNextRun", kUbuntu, {}, {},
     "getent group syslog >/dev/null || groupadd syslog",
     {{"zelalice", "s3cret", dorn::USER_CREATE_DELETE_SUCCESS}, {"zelalice", "other", dorn::USER_CREATE_DELETE_SUCCESS}},
     [](AgentHarness& h) {
       EXPECT_EQ(Sh(h, "id -nG zelalice | tr ' ' '\\n' | sort | tr '\\n' ' '"), "sudo syslog zelalice ");
       EXPECT_NE(Sh(h, "id -u zelalice"), "0\n");
       EXPECT_EQ(Sh(h, "grep -c '^zelalice:' /etc/passwd"), "1\n");
       // The first run's home went with the first account.
       EXPECT_EQ(Sh(h, "ls -A /home/zelalice | grep -c old-file || true"), "0\n");
       // The hash comes from "openssl passwd -crypt", which OpenSSL 3 lacks:
       // it prints nothing there and the account gets an empty hash.
       const std::string hash = Sh(h, "getent shadow zelalice | cut -d: -f2 | tr -d '\\n'");
       const bool crypt = Sh(h, "openssl passwd -crypt probe >/dev/null 2>&1 && echo yes || true") == "yes\n";
       EXPECT_EQ(hash.size(), crypt ? 13u : 0u) << hash;
     }},
    {"UbuntuFailsWhenItsLastStepFails", kUbuntu, {}, {}, "groupdel sudo",
     {{"zelbob", "pw", dorn::USER_CREATE_DELETE_FAILED}},
     [](AgentHarness& h) { EXPECT_EQ(Sh(h, "grep -c '^zelbob:' /etc/passwd"), "1\n"); }},
    {"RpmHostMakesAnAccountWithUidZero", kRhel, {}, {}, "",
     {{"zelroot", "pw", dorn::USER_CREATE_DELETE_SUCCESS}, {"zelroot", "pw2", dorn::USER_CREATE_DELETE_SUCCESS}},
     [](AgentHarness& h) {
       EXPECT_EQ(Sh(h, "id -u zelroot; id -g zelroot"), "0\n0\n");
       EXPECT_NE(Sh(h, "id -nG zelroot").find("root"), std::string::npos);
       EXPECT_EQ(Sh(h, "grep -c '^zelroot:' /etc/passwd"), "1\n");
     }},
    {"UlmHostRunsTheModuleFromTmp", kUlm, {{"uname", kUlmUname}}, {{"ZEL_FAKE_PYLIB", Fake("ulm/pylib")}}, "",
     {{"zelcarol", "pw", dorn::USER_CREATE_DELETE_SUCCESS}},
     [](AgentHarness& h) {
       EXPECT_EQ(HstCalls(h), (std::vector<std::string>{"hst SmartConnect hmon", "hst CreateUser zelcarol pw",
                                                         "hst SetEntityPermissions rootFolder zelcarol -1 False True",
                                                         "hst Logout"}));
       // A hypervisor account, not a Linux one.
       EXPECT_EQ(Sh(h, "grep -c '^zelcarol:' /etc/passwd || true"), "0\n");
     }},
    {"UlmHostReportsTheModulesFailure", kUlm, {{"uname", kUlmUname}},
     {{"ZEL_FAKE_PYLIB", Fake("ulm/pylib")}, {"ZEL_FAKE_HST_MODE", "nopermission"}}, "",
     {{"zeldave", "pw", dorn::USER_CREATE_DELETE_FAILED}},
     [](AgentHarness& h) { EXPECT_EQ(HstCalls(h).size(), 2u) << "connect, then the refused CreateUser"; }},
    {"UnknownHostRunsNoScript", kUbuntu, {{"lsb_release", "#!/bin/sh\necho Gentoo\n"}}, {}, "",
     {{"zeleve", "pw", dorn::USER_CREATE_DELETE_SUCCESS}},
     [](AgentHarness& h) { EXPECT_EQ(Sh(h, "grep -c '^zeleve:' /etc/passwd || true"), "0\n"); }},
};

void PrintTo(const HostCase& c, std::ostream* os) { *os << c.name; }

class HostOperationsTest : public ::testing::TestWithParam<HostCase> {};

TEST_P(HostOperationsTest, CreateUser) {
  const HostCase& c = GetParam();
  const std::string passwd = HostText("/etc/passwd");
  const std::string group = HostText("/etc/group");
  {
    AgentHarnessOptions options;
    options.host = c.host;
    options.host_standins = false;
    options.agent_env = c.env;
    AgentHarness h(options);
    for (const auto& [name, script] : c.standins) h.sandbox().AddStandin(name, script);
    if (!c.setup.empty()) Sh(h, c.setup);
    ASSERT_TRUE(h.Listen());
    h.StartAgent();
    ASSERT_TRUE(h.WaitForRegistrations(1, 30s)) << h.Report();

    for (size_t i = 0; i < c.users.size(); ++i) {
      const User& u = c.users[i];
      SCOPED_TRACE(u.name + " run " + std::to_string(i + 1));
      // Scratch the clean-up must remove, and a neighbour it must leave; a
      // file in the home that the next run must take away with the account.
      Sh(h, "touch /tmp/zel-scratch /tmp/create.pyc /tmp/keep-me; "
            "[ ! -d /home/" + u.name + " ] || touch /home/" + u.name + "/old-file");
      const auto a = h.Request("message_type: MT_CREATE_USER operation_id: \"user-" + std::to_string(i) +
                               "\" dorn_fabric_object { createOrDeleteUser { username: \"" + u.name +
                               "\" password: \"" + u.password + "\" } }");
      ASSERT_TRUE(a && a->message) << h.Report();
      ASSERT_EQ(a->message->operation_status_size(), 1);
      EXPECT_EQ(a->message->operation_status(0).status(), u.expected);
      // Mount points are the sandbox's own (a build tree under /tmp shows here).
      EXPECT_EQ(Sh(h, "find /tmp -mindepth 1 -maxdepth 1 -exec sh -c 'mountpoint -q \"$1\" || basename \"$1\"' _ {} \\;"),
                "keep-me\n");
    }
    c.check(h);
    EXPECT_EQ(h.SanitizerReport(), "");
  }
  // The machine's own accounts are untouched.
  EXPECT_EQ(HostText("/etc/passwd"), passwd);
  EXPECT_EQ(HostText("/etc/group"), group);
}

INSTANTIATE_TEST_SUITE_P(HostTypes, HostOperationsTest, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace e2e
}  // namespace zel
