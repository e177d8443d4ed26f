#include "mirror_on_drop/MirrorOnDropType.h"

#include <algorithm>
#include <cstring>
#include <ostream>
#include <stdexcept>

#include "mirror_on_drop/MirrorOnDropValueText.h"
#include "platform/types/ByteOrder.h"

namespace MirrorOnDrop::Report {

using Detail::ValueTextReader;
using Detail::ValueTextWriter;

std::string_view stringValue(ReportType type) {
  return type == ReportType::STOP ? "STOP" : "START";
}

ReportType reportTypeFromString(std::string_view text) {
  if (text == "START") return ReportType::START;
  if (text == "STOP") return ReportType::STOP;
  throw std::range_error("invalid report type '" + std::string(text) + "'");
}

std::ostream& operator<<(std::ostream& os, ReportType type) {
  return os << stringValue(type);
}

Report::Report(std::string_view text) {
  ValueTextReader r(text, "MirrorOnDrop::Report::Report", "timestamp");
  timestampIs(Drop::Timestamp(r.number<uint64_t>("timestamp")));
  std::string_view const reason = r.field("reason");
  try {
    reasonIs(Drop::Reason(reason));
  } catch (std::range_error const&) {
    ValueTextReader::fail("reason");
  }
  uint8_t const size = r.number<uint8_t>("dataSize");
  if (size > kPayloadSize) ValueTextReader::fail("dataSize");
  dataSizeIs(size);
  r.end("dataSize");
}

bool Report::operator==(Report const& o) const {
  return std::memcmp(bytes_, o.bytes_, kPayloadOffset) == 0;
}

std::string Report::valueToStrep() const {
  return ValueTextWriter("MirrorOnDrop::Report::Report")
      .field("timestamp", timestamp().value())
      .field("reason", reason())
      .field("dataSize", dataSize())
      .str();
}

std::ostream& operator<<(std::ostream& os, Report const& r) {
  return os << r.valueToStrep();
}

}  // namespace MirrorOnDrop::Report

namespace MirrorOnDrop {

MirrorOnDrop::UdpPam::UdpPam()
    : udpPamIp4_(Calyx::make<Calyx::UdpPam>("UdpPamIp4")),
      udpPamIp6_(Calyx::make<Calyx::UdpPam>("UdpPamIp6")) {
  udpPamIp4_->hasNotificationActiveIs(true);
  udpPamIp6_->hasNotificationActiveIs(true);
  udpPamIp4_->modeIs(Calyx::UdpPam::kModeTransmit);
  udpPamIp6_->ipv6EnIs(true);
  udpPamIp6_->modeIs(Calyx::UdpPam::kModeTransmit);
}

bool MirrorOnDrop::UdpPam::sendPacket(Calyx::IpGenAddr const& srcIp, Calyx::IpGenAddr const& dstIp,
                                      Calyx::DscpValue dscp, uint16_t dstL4Port,
                                      Calyx::Ptr<Calyx::Pkt> const& pkt) {
  Calyx::Ptr<Calyx::UdpPam> const pam = dstIp.isV4() ? udpPamIp4_ : udpPamIp6_;
  pam->txSrcIpAddrIs(srcIp.v4());
  pam->txSrcIp6AddrIs(srcIp.v6());
  pam->txDstIpAddrIs(dstIp.v4());
  pam->txDstIp6AddrIs(dstIp.v6());
  pam->txTosIs(dscp.value());
  pam->txPortIs(dstL4Port);
  uint64_t const before = pam->txPkts();
  pam->txPktIs(pkt);
  txErrno_ = pam->txErrno();
  return pam->txPkts() != before;
}

}  // namespace MirrorOnDrop
