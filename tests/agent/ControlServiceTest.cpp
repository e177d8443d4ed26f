// The control socket's requests as the agent answers them, against the real feature on the simulated clock:
// whatever a member of the socket's group sends, the reply is one JSON object with "ok", a refusal names the
// field, and the service goes on answering.
#include "agent/ControlService.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "platform/core/EventLoop.h"
#include "platform/core/Trace.h"
#include "testkit/TempStateDir.h"

using namespace MirrorOnDrop;
using namespace Calyx;
using nlohmann::json;

namespace {

class ControlServiceTest : public ::testing::Test {
 protected:
  ControlServiceTest() {
    mounts.config->enabledIs(true);
    mounts.config->trackerIs("t1", make<FlowTracking::TrackerConfig>("t1"));
    mounts.capabilities->mirrorOnDropSupportedIs(true);
    host = std::make_unique<FeatureHost>(
        *static_cast<MirrorOnDrop::PluginTable const*>(mirrorOnDropPluginTable()), mounts);
    service = std::make_unique<ModAgent::ControlService>(*loop, *host, dir.path());
  }
  json ask(std::string const& request) {
    std::string const reply = service->answer(request);
    json const j = json::parse(reply, nullptr, false);
    EXPECT_TRUE(j.is_object() && j.contains("ok") && j["ok"].is_boolean()) << request << " -> " << reply;
    return j;
  }

  Calyx::Test::TempStateDir dir;
  Ptr<EventLoop> loop = EventLoop::makeSimulated();
  FeatureMounts mounts = featureMountsMake(loop);
  std::unique_ptr<FeatureHost> host;
  std::unique_ptr<ModAgent::ControlService> service;
};

TEST_F(ControlServiceTest, MalformedRequestsAreRefusedNamingTheFieldAndTheServiceGoesOn) {
  struct Case {
    std::string request;
    std::string error;  // expected within the refusal
  };
  std::string const deep(20000, '[');
  std::vector<Case> const cases = {
      // The command of another type: each of these once ended the process.
      {R"({"command": 5})", "command: expected a string"},
      {R"({"command": null})", "command: expected a string"},
      {R"({"command": ["status"]})", "command: expected a string"},
      {R"({"command": {"status": 1}})", "command: expected a string"},
      {R"({"command": true})", "command: expected a string"},
      {R"({"command": 1.5})", "command: expected a string"},
      {R"({})", "command: missing"},
      {R"({"command": "fly"})", "command: unknown command \"fly\""},
      // Not an object, not JSON, not UTF-8.
      {"null", "expected one JSON object per line, not null"},
      {R"(["status"])", "expected one JSON object per line, not array"},
      {"not json", "parse error at line 1, column 2"},
      {"{\"command\": \"st\xff\"}", "ill-formed UTF-8"},
      {deep, "expected one JSON object per line"},
      {"", "unexpected end of input"},
      {R"({"command": "status", "n": 1e99999})", "number overflow parsing '1e99999'"},
      // Other fields: wrong type, unknown, missing, or carrying the setting's own separators.
      {R"({"command": "clear-counters", "exporter": 5})", "exporter: expected a string"},
      {R"({"command": "clear-counters", "exporter": null})", "exporter: expected a string"},
      {R"({"command": "status", "colour": "red"})", "\"colour\": unknown field"},
      {R"({"command": "trace-set", "handle": ["MOD-Manager"], "levels": "0"})", "handle: expected a string"},
      {R"({"command": "trace-set", "handle": "MOD-Manager", "levels": 4})", "levels: expected a string"},
      {R"({"command": "trace-set", "handle": "MOD-Manager"})", "levels: missing"},
      {R"({"command": "trace-set", "handle": "MOD-Manager", "levels": "1,Other=3"})", "is not a level list"},
      {R"({"command": "trace-set", "handle": "A=1", "levels": "1"})",
       "handle: \"A=1\" is not a trace handle"},
      {R"({"command": "trace-set", "handle": "MOD-Manager", "levels": "9"})",
       "levels: Bad trace level \"9\""},
  };
  for (auto const& c : cases) {
    json const reply = ask(c.request);
    EXPECT_EQ(reply.value("ok", true), false) << c.request.substr(0, 80);
    EXPECT_NE(reply.value("error", "").find(c.error), std::string::npos)
        << c.request.substr(0, 80) << " -> " << reply.dump();
  }
  // A field name of 60 KiB is quoted cut short, so the refusal stays a short line.
  std::string const longName(60000, 'x');
  EXPECT_LT(service->answer(R"({"command": "status", ")" + longName + R"(": "1"})").size(), 200u);
  // Nothing was changed by the refusals (no handle "Other" made), and the service still answers.
  auto const names = TraceRegistry::instance().names();
  EXPECT_EQ(std::count(names.begin(), names.end(), "Other"), 0);
  json const status = ask(R"({"command": "status"})");
  EXPECT_EQ(status["ok"], true);
  EXPECT_EQ(status["feature"], "on");
  EXPECT_EQ(status["damaged_tables"], json::array());
}

// Every name would make a channel that lives as long as the process: only the agent's own handles are taken.
TEST_F(ControlServiceTest, TraceSetTakesTheAgentsHandlesOnly) {
  size_t const before = TraceRegistry::instance().names().size();
  json const typo = ask(R"({"command": "trace-set", "handle": "MOD-Manger", "levels": "0-2"})");
  EXPECT_NE(
      typo.value("error", "").find("handle: unknown trace handle \"MOD-Manger\" (handles: MOD-Manager,"),
      std::string::npos)
      << typo.dump();
  EXPECT_EQ(TraceRegistry::instance().names().size(), before);
  EXPECT_EQ(ask(R"({"command": "trace-set", "handle": "MOD-Agent", "levels": "0-2"})")["ok"], true);
  EXPECT_EQ(TraceRegistry::instance().handle("MOD-Agent").levels(), 0b111);
  EXPECT_EQ(ask(R"({"command": "trace-set", "handle": "*", "levels": "0-1"})")["ok"], true);
}

}  // namespace
