#pragma once
// FeatureHost: the host's side of the plug-in. Given the plug-in's table and the entities the host mounted
// for the feature, it brings the feature up in its start-up order and down in the reverse:
//   up:   the four shared tables (through the plug-in's table factories), the MountHolder (which makes the
//         Exchanger and the feature's timer wheel), the task "MOD-Task:toggleFeatureOff", the ManagerSm
//         (whose construction may turn the feature on at once), the exact-match adapter when the plug-in has
//         one;
//   down: the adapter, the manager (its clean-up turns the feature off at once), the task, the holder, the
//         tables.
// What it tells of the feature it asks the plug-in's table for, as plain data: the host holds the feature's
// parts but never looks into them. It lives in the host because only the host knows both the platform and the
// plug-in's table; the platform below knows no feature.

#include <functional>
#include <vector>

#include "mirror_on_drop/MirrorOnDropPlugin.h"

namespace MirrorOnDrop {

// Every mounted entity made afresh, empty, for a loop.
FeatureMounts featureMountsMake(Calyx::Ptr<Calyx::EventLoop> loop);

// What the shared tables hold, counted for the host's metrics.
struct FeatureTableCounts {
  size_t flows = 0;
  std::vector<InterfaceFlows> interfaces;  // by interface name
  size_t exactMatch = 0;                   // exact-match entries requested
  size_t exactMatchInstalled = 0;          // of which installed
};

class FeatureHost {
 public:
  static constexpr int kToggleFeatureOffPriority = 5;
  FeatureHost(PluginTable const& plugin, FeatureMounts mounts);
  ~FeatureHost();
  FeatureHost(FeatureHost const&) = delete;
  FeatureHost& operator=(FeatureHost const&) = delete;

  FeatureMounts const& mounts() const { return mounts_; }
  FeaturePart const& adapter() const { return adapter_; }
  // The feature is on: its entity is in the agent's directory.
  bool featureOn() const { return plugin_.featureOn(*mounts_.agentDir); }
  FeatureCounters counters() const { return plugin_.countersRead(holder_); }
  std::vector<CollectorSendErrors> sendErrors() const { return plugin_.sendErrorsRead(holder_); }
  Calyx::Ptr<Calyx::HwFlowTracking::FtConfig const> activeTracker() const {
    return plugin_.activeTracker(holder_);
  }
  std::vector<CollectorCounters> collectors() const {
    return plugin_.collectorCountersRead(tables_.collectorStatus);
  }
  size_t flowCount() const { return plugin_.entryCount(tables_.reportStatus); }
  size_t exactMatchCount() const { return plugin_.entryCount(tables_.emtConfig); }
  FeatureTableCounts tableCounts() const;
  // onReady runs now and whenever a turn-off has sent its last STOP report, while the returned part lives.
  FeaturePart toggleOffReadyWatch(std::function<void()> onReady) const {
    return plugin_.toggleOffReadyWatch(holder_, std::move(onReady));
  }

 private:
  PluginTable const& plugin_;
  FeatureMounts mounts_;
  FeatureTables tables_;
  FeaturePart holder_;
  Calyx::Ptr<Calyx::Task> taskToggleFeatureOff_;
  FeaturePart manager_;
  FeaturePart adapter_;
};

}  // namespace MirrorOnDrop
