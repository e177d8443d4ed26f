// Feeds arbitrary bytes to the agent's control requests, one line at a time, against the real feature running
// on the simulated clock. Every line must get one JSON object with a boolean "ok" (and an "error" text when
// it is false) without an exception: the control socket would catch one, but any exception here is a field
// the service failed to check, so it ends the run as a finding.
#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "agent/ControlService.h"
#include "platform/core/EventLoop.h"
#include "platform/core/Trace.h"
#include "platform/core/TraceSink.h"

using namespace MirrorOnDrop;
using namespace Calyx;

namespace {

class Discard final : public TraceSink {
 public:
  void write(std::string_view, int, std::string_view) override {}
};

struct Harness {
  Harness() {
    char dir[] = "/dev/shm/control-request-fuzz-XXXXXX";
    if (!mkdtemp(dir)) std::abort();
    stateDir = dir;
    setenv("CALYX_STATE_DIR", dir, 1);
    TraceRegistry::instance().sinkIs(std::make_shared<Discard>());
    mounts.config->enabledIs(true);
    auto tracker = make<FlowTracking::TrackerConfig>("t1");
    mounts.config->trackerIs("t1", tracker);
    mounts.capabilities->mirrorOnDropSupportedIs(true);
    host = std::make_unique<FeatureHost>(
        *static_cast<MirrorOnDrop::PluginTable const*>(mirrorOnDropPluginTable()), mounts);
    service = std::make_unique<ModAgent::ControlService>(*loop, *host, stateDir);
  }
  ~Harness() {
    service.reset();
    host.reset();
    std::error_code ignored;
    std::filesystem::remove_all(stateDir, ignored);
  }

  std::string stateDir;
  Ptr<EventLoop> loop = EventLoop::makeSimulated();
  FeatureMounts mounts = featureMountsMake(loop);
  std::unique_ptr<FeatureHost> host;
  std::unique_ptr<ModAgent::ControlService> service;
};

void check(std::string const& reply) {
  auto const j = nlohmann::json::parse(reply, nullptr, false);
  if (!j.is_object() || !j.contains("ok") || !j["ok"].is_boolean()) std::abort();
  if (j["ok"] == false && !(j.contains("error") && j["error"].is_string())) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  static Harness harness;
  std::string_view input(reinterpret_cast<char const*>(data), size);
  while (!input.empty()) {
    size_t const nl = input.find('\n');
    std::string const line(input.substr(0, nl));
    input.remove_prefix(nl == std::string_view::npos ? input.size() : nl + 1);
    check(harness.service->answer(line));
  }
  // What the requests asked for reached the feature as they were answered (notifications are synchronous);
  // trace levels go back to off, so that one input's levels do not slow down the next.
  TraceRegistry::instance().levelsApply("*=");
  return 0;
}
