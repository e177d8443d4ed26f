#pragma once
// SenderSm: turns the report keys the dispatcher queues into report packets and sends each to every collector
// of every exporter of the active tracker, through its one UDP endpoint.
//
// Pacing: the report timer fires one active interval after the previous activation; when it fires, or when
// the dispatcher pulses isStopReport, the sender only schedules its report task ("MOD-Task:report"); all
// sending happens in the task. An activation arms the timer again when it is idle and publishes that time in
// the Exchanger (timerReportTimeMin), which is when the dispatcher queues its START batch; then it drains the
// START queue, and the STOP queue while a stop is due.
//
// The sender never takes anything out of a queue: it announces each sent key (reportKey, then a sent counter)
// and the dispatcher removes it, inside that notification. Between keys the task yields when the scheduler
// asks, declaring the keys left as pending work. The report packet is the type byte followed by the stored
// report as it stands (it is kept in wire order), built once per key and sent to every collector. Per
// collector it counts bytes (the report's 25 + N, without the type byte), START and STOP reports in the
// collector status table; a failed send is traced and recorded in the ring trace, and the next collector is
// tried.

#include <map>
#include <memory>

#include "mirror_on_drop/MirrorOnDropCollector.h"
#include "mirror_on_drop/MirrorOnDropExchanger.h"
#include "mirror_on_drop/MirrorOnDropReport.h"
#include "mirror_on_drop/MirrorOnDropType.h"
#include "platform/core/Task.h"
#include "platform/core/TimerWheel.h"
#include "platform/entity/FlowTrackingConfigReq.h"
#include "platform/entity/HwFlowTrackingExporterConfig.h"
#include "platform/entity/HwFlowTrackingFtConfig.h"
#include "platform/entity/HwFlowTrackingFtStatus.h"

namespace MirrorOnDrop {

class SenderSm : public Calyx::Object {
 public:
  using ConfigReq = Calyx::FlowTracking::ConfigReq;
  using FtConfig = Calyx::HwFlowTracking::FtConfig;
  using FtStatus = Calyx::HwFlowTracking::FtStatus;
  using ExporterConfig = Calyx::HwFlowTracking::ExporterConfig;

  SenderSm(Calyx::Ptr<ConfigReq const> configReq, Calyx::Ptr<FtConfig const> hwFtConfig,
           Calyx::Ptr<FtStatus const> hwFtStatus, Calyx::Ptr<Collector::Status> collectorStatus,
           Calyx::Ptr<Report::Status const> reportStatus, Calyx::Ptr<Calyx::Task> taskReport,
           Calyx::Ptr<Calyx::TimerWheel> const& timerWheel, Calyx::Ptr<Exchanger> exchanger,
           Calyx::PktManager& pktManager);

  Calyx::Ptr<ConfigReq const> const& configReq() const { return configReq_; }
  Calyx::Ptr<FtConfig const> const& hwFtConfig() const { return hwFtConfig_; }
  Calyx::Ptr<FtStatus const> const& hwFtStatus() const { return hwFtStatus_; }
  Calyx::Ptr<Collector::Status> const& collectorStatus() const { return collectorStatus_; }
  Calyx::Ptr<Report::Status const> const& reportStatus() const { return reportStatus_; }
  Calyx::Ptr<Calyx::Task> const& taskReport() const { return taskReport_; }
  Calyx::Ptr<Calyx::Timer const> timerReport() const { return timerReport_; }
  Calyx::Ptr<Exchanger> const& exchanger() const { return exchanger_; }
  Calyx::Ptr<MirrorOnDrop::UdpPam> const& udpPam() const { return udpPam_; }
  size_t expConfigCount() const { return expConfig_.size(); }

  void expConfigIs(Calyx::String const& name, Calyx::Ptr<ExporterConfig const> config);
  void expConfigDel(Calyx::String const& name);
  void expConfigDelAll();
  void handleActiveInterval();
  void handleClearCounter();
  void report();
  // Sends every report of one queued batch, taking its keys in the order the batch holds them (the dispatcher
  // removes each as it is announced); true when it yielded (the task is scheduled again).
  bool sendReport(Calyx::Ptr<Report::EntryOutbox> const& entry, bool isStop);

  void initialize();
  void finalize();
  void cleanup();

 protected:
  ~SenderSm() override;

 private:
  class ConfigReqReactor;
  class FtConfigReactor;
  class FtStatusReactor;
  class TaskReactor;
  class TimerReactor;
  class ExchangerReactor;
  class ExpConfigReactor;

  double now() const { return timerReport_->wheel().now(); }
  // Fills pkt with the report packet of key; false when the key has no report entry.
  bool packetBuild(Report::Key const& key, bool isStop, Calyx::Pkt& pkt);
  void sendToCollectors(bool isStop, Calyx::Ptr<Calyx::Pkt> const& pkt);
  void sendToCollector(Calyx::String const& exporter, Calyx::String const& collector,
                       Calyx::IpGenAddr const& src, Calyx::IpGenAddr const& dst, uint16_t port,
                       Calyx::DscpValue dscp, bool isStop, Calyx::Ptr<Calyx::Pkt> const& pkt);

  Calyx::Ptr<ConfigReq const> configReq_;
  Calyx::Ptr<FtConfig const> hwFtConfig_;
  Calyx::Ptr<FtStatus const> hwFtStatus_;
  Calyx::Ptr<Collector::Status> collectorStatus_;
  Calyx::Ptr<Report::Status const> reportStatus_;
  Calyx::Ptr<Calyx::Task> taskReport_;
  Calyx::Ptr<Calyx::Timer> timerReport_;
  Calyx::Ptr<Exchanger> exchanger_;
  Calyx::PktManager& pktManager_;  // where report packets come from; the host's, outliving the sender
  Calyx::Ptr<MirrorOnDrop::UdpPam> udpPam_;
  std::map<Calyx::String, std::unique_ptr<ExpConfigReactor>> expConfig_;
  std::unique_ptr<ConfigReqReactor> configReqReactor_;
  std::unique_ptr<FtConfigReactor> ftConfigReactor_;
  std::unique_ptr<FtStatusReactor> ftStatusReactor_;
  std::unique_ptr<TaskReactor> taskReactor_;
  std::unique_ptr<TimerReactor> timerReactor_;
  std::unique_ptr<ExchangerReactor> exchangerReactor_;
};

}  // namespace MirrorOnDrop
