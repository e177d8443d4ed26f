#pragma once
// FeaturePipeline: the feature's road for tests, in one process, on the simulated clock. The shared tables
// (in a state directory of the test's own), every mounted entity, a MountHolder, and on dispatcherStart() a
// DispatcherSm whose receiver reads in-memory packet access modules and whose sender sends over real loopback
// UDP to two test collectors (IPv4 and IPv6, one exporter "e1").
//
//   FeaturePipeline p;                       // tracker "t1": active 1 s, inactive 5 s
//   p.dispatcherStart();                     // the feature turned on for t1, as the manager does it
//   p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(1, 100)});
//   p.loop->runFor(1.1);                     // the START goes out
//   p.received();                            // the reports the IPv4 collector got, decoded
//
// Or, for the whole feature control: the user's flow-tracking configuration and a ManagerSm over it.
//
//   p.trackerConfigure("t1");                // enabled, tracker t1 with exporter e1 to both collectors
//   p.managerStart();                        // the manager turns the feature on

#include <sys/socket.h>

#include <cstdint>
#include <vector>

#include "mirror_on_drop/MirrorOnDropDispatcherSm.h"
#include "mirror_on_drop/MirrorOnDropManagerSm.h"
#include "mirror_on_drop/MirrorOnDropMountHolder.h"
#include "platform/core/EventLoop.h"
#include "platform/entity/HwFlowTrackingExporterConfig.h"
#include "testkit/TempStateDir.h"
#include "tests/support/LoopbackReceiver.h"

namespace MirrorOnDrop::Test {

struct ReceivedReport {
  Report::ReportType type;
  Report::Report report;         // timestamp, reason, size and the sample as sent
  std::vector<uint8_t> payload;  // the datagram after its type byte
};

class FeaturePipeline {
 public:
  static inline Calyx::IntfId const kIntfA{"Ethernet1"};
  static inline Calyx::IntfId const kIntfB{"Ethernet2"};
  static constexpr char const* kTracker = "t1";

  explicit FeaturePipeline(double activeInterval = 1.0, double inactiveTimeout = 5.0);
  ~FeaturePipeline();
  FeaturePipeline(FeaturePipeline const&) = delete;
  FeaturePipeline& operator=(FeaturePipeline const&) = delete;

  // The feature turned on for the tracker: its status with the configured intervals in hwStatus, the holder
  // naming tracker and status, a dispatcher; then the loop runs until the modules are open.
  void dispatcherStart();
  // The feature turned off as the manager's task does it: the dispatcher goes, the holder names no tracker,
  // the tracker status goes.
  void dispatcherStop();

  // A tracker in the user's configuration (flow tracking enabled), with exporter e1 to both collectors.
  Calyx::Ptr<Calyx::FlowTracking::TrackerConfig> trackerConfigure(std::string const& name,
                                                                  double activeInterval = 1.0,
                                                                  double inactiveTimeout = 5.0);
  // A manager over the configuration and the holder, as the host makes it; and its release.
  void managerStart();
  void managerStop();
  // The dispatcher of either way of running: the test's own or the manager's.
  Calyx::Ptr<DispatcherSm> activeDispatcher() const;

  // Frames arriving on an interface's module in one readable event.
  void drop(Calyx::IntfId const& intf, std::vector<std::vector<uint8_t>> const& frames);
  // A well-formed mirrored frame of flow n (TCP 10.0.0.1:n -> 10.0.0.2:80, or the IPv6 equivalent).
  static std::vector<uint8_t> frame(uint16_t n, uint64_t timestamp, bool ipv6 = false);
  static Report::Key flow(uint16_t n, bool ipv6 = false);

  // The reports the IPv4 collector received so far, in arrival order (the IPv6 one gets the same).
  std::vector<ReceivedReport> const& received();
  std::vector<ReceivedReport> received6();

  Calyx::Test::TempStateDir stateDir;
  Calyx::Ptr<Calyx::EventLoop> loop = Calyx::EventLoop::makeSimulated(1000.0);
  Calyx::Test::LoopbackReceiver collector4{AF_INET};
  Calyx::Test::LoopbackReceiver collector6{AF_INET6};

  Calyx::Ptr<Emt::Config> emtConfig;
  Calyx::Ptr<Emt::Status> emtStatus;
  Calyx::Ptr<Collector::Status> collectorStatus;
  Calyx::Ptr<Report::Status> reportStatus;
  Calyx::Ptr<MountHolder::AllIntfStatusLocalDir> allIntfStatusLocalDir;
  Calyx::Ptr<MountHolder::AllIntfStatusDir> allIntfStatusDir;
  Calyx::Ptr<MountHolder::Capabilities> capabilities;
  Calyx::Ptr<MountHolder::ConfigReq> configReq;
  Calyx::Ptr<MountHolder::FeatureAgentCommonSmData> fcsd;
  Calyx::Ptr<MountHolder::HwConfig> hwConfig;
  Calyx::Ptr<MountHolder::HwStatus> hwStatus;
  Calyx::Ptr<MountHolder::KniStatus> kniStatus;
  Calyx::Ptr<MountHolder::FtConfig> ftConfig;
  Calyx::Ptr<Calyx::HwFlowTracking::ExporterConfig> exporter;
  Calyx::Ptr<MountHolder> holder;
  Calyx::Ptr<DispatcherSm> dispatcher;
  Calyx::Ptr<Calyx::FlowTracking::Config> config;
  Calyx::Ptr<Calyx::FlowTracking::Status> configStatus;
  Calyx::Ptr<Calyx::Dir> agentDir;
  Calyx::Ptr<ManagerSm> manager;

 private:
  static void decode(std::vector<Calyx::Test::Datagram> const& datagrams, std::vector<ReceivedReport>& out);
  std::vector<ReceivedReport> received_;
};

}  // namespace MirrorOnDrop::Test
