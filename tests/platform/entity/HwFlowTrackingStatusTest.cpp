#include "platform/entity/HwFlowTrackingStatus.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/entity/HwFlowTrackingConfig.h"

using namespace Calyx;
using namespace Calyx::HwFlowTracking;

namespace {

class StatusRecorder : public Status::Reactor {
 public:
  using Reactor::Reactor;
  void handleHwFtStatus(String const& name) override { log.push_back(name); }
  std::vector<String> log;
};

TEST(HwFlowTrackingStatusTest, StatusIsCreatedOnceAndNotifiedOnCreateAndDelete) {
  Ptr<Status> status = make<Status>();
  StatusRecorder rec(status);
  Ptr<FtStatus> first = status->hwFtStatusIs("ft1");
  first->activeIntervalIs(FlowTracking::ActiveInterval(1500));
  Ptr<FtStatus> again = status->hwFtStatusIs("ft1");
  EXPECT_EQ(first, again);
  EXPECT_DOUBLE_EQ(again->activeInterval().seconds(), 1.5);
  status->hwFtStatusIs("ft0");
  status->hwFtStatusDel("ft1");
  status->hwFtStatusDel("ft1");
  EXPECT_EQ(rec.log, (std::vector<String>{"ft1", "ft0", "ft1"}));
  EXPECT_FALSE(status->hwFtStatus("ft1"));

  status->hwFtStatusIs("ft2");
  rec.log.clear();
  status->hwFtStatusDelAll();
  EXPECT_EQ(rec.log, (std::vector<String>{"ft0", "ft2"}));
  EXPECT_EQ(status->hwFtStatusCount(), 0u);
}

class ConfigRecorder : public Config::Reactor {
 public:
  using Reactor::Reactor;
  void handleHwFtConfig(String const& name) override { log.push_back(name); }
  std::vector<String> log;
};

TEST(HwFlowTrackingStatusTest, TrackerCollectionsNotifyWhenTheObjectChangesNotWhenItIsStoredAgain) {
  Ptr<Config> config = make<Config>();
  ConfigRecorder rec(config);
  Ptr<FtConfig> ft = make<FtConfig>("ft1");
  config->hwFtConfigIs("ft1", ft);
  config->hwFtConfigIs("ft1", ft);                     // the same object
  config->hwFtConfigIs("ft1", make<FtConfig>("ft1"));  // replaced
  config->hwFtConfigIs("ft1", nullptr);                // null deletes
  EXPECT_EQ(rec.log, (std::vector<String>{"ft1", "ft1", "ft1"}));
  EXPECT_EQ(config->hwFtConfigCount(), 0u);

  Ptr<ExporterConfig> exp = make<ExporterConfig>("e");
  ft->expConfigIs("e", exp);
  Ptr<FtConfig const> readOnly = ft;
  EXPECT_EQ(readOnly->expConfig("e").get(), exp.get());
  EXPECT_FALSE(readOnly->expConfig("other"));
}

}  // namespace
