#include "platform/entity/FlowTrackingConfigReq.h"

#include <gtest/gtest.h>

using namespace Calyx;
using namespace Calyx::FlowTracking;

namespace {

class Recorder : public ConfigReq::Reactor {
 public:
  using Reactor::Reactor;
  void handleClearCounterReq() override {
    ++calls;
    last = static_cast<ConfigReq const*>(notifier())->clearCounterReq();
  }
  int calls = 0;
  ClearCounterReq last;
};

TEST(FlowTrackingConfigReqTest, EveryNewRequestIsHeardEvenForTheSameNames) {
  Ptr<ConfigReq> req = make<ConfigReq>();
  Recorder rec(req);
  EXPECT_FALSE(req->clearCounterReq().isRequest());

  req->clearCounterReqIs(ClearCounterReq("ft1", "exp1", 100.0));
  req->clearCounterReqIs(ClearCounterReq("ft1", "exp1", 100.0));  // the same request again: silent
  req->clearCounterReqIs(ClearCounterReq("ft1", "exp1", 101.0));  // asked again later
  EXPECT_EQ(rec.calls, 2);
  EXPECT_EQ(rec.last.exporterName(), "exp1");
  EXPECT_EQ(rec.last.reqTime(), 101.0);

  req->clearCounterReqIs(ClearCounterReq("ft1", "", 101.0));  // only the exporter differs
  EXPECT_EQ(rec.calls, 3);
}

}  // namespace
