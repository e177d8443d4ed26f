#pragma once
// The stored drop report and its type, and the feature's UDP transmit endpoint.
//
// A Report::Report is held in the exact byte layout of a report packet's
// body, every number already in network order, so the sender copies it into packets without conversion:
//   offset 0   8 bytes  timestamp, big-endian
//   offset 8  16 bytes  reason, four big-endian words
//   offset 24  1 byte   dataSize: valid bytes of the sample (0 to 80)
//   offset 25 80 bytes  sample: the first bytes of the dropped frame, zero beyond dataSize

#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <string>
#include <string_view>

#include "mirror_on_drop/MirrorOnDropTypeCommon.h"
#include "platform/core/Ptr.h"
#include "platform/io/UdpPam.h"
#include "platform/types/ByteOrder.h"
#include "platform/types/DscpValue.h"
#include "platform/types/Pkt.h"

namespace MirrorOnDrop::Report {

enum class ReportType : uint8_t { START = 0, STOP = 1 };

std::string_view stringValue(ReportType type);
// Throws std::range_error for anything but "START" and "STOP".
ReportType reportTypeFromString(std::string_view text);
std::ostream& operator<<(std::ostream& os, ReportType type);

class Report {
 public:
  static constexpr size_t kTimestampOffset = 0;
  static constexpr size_t kReasonOffset = 8;
  static constexpr size_t kDataSizeOffset = 24;
  static constexpr size_t kPayloadOffset = 25;
  static constexpr size_t kPayloadSize = Constant::packetSampleSize();
  static constexpr size_t kSize = kPayloadOffset + kPayloadSize;

  Report() = default;
  // The sample all zero. Inline, with the setters below: the parser makes one report per frame.
  Report(Drop::Timestamp timestamp, Drop::Reason const& reason, uint8_t dataSize) {
    timestampIs(timestamp);
    reasonIs(reason);
    dataSizeIs(dataSize);
  }
  // From the text form; the sample is all zero (it is neither printed nor parsed).
  explicit Report(std::string_view text);

  Drop::Timestamp timestamp() const { return Drop::Timestamp(Calyx::loadBe64(bytes_ + kTimestampOffset)); }
  void timestampIs(Drop::Timestamp t) { Calyx::storeBe64(bytes_ + kTimestampOffset, t.value()); }
  // Drop::Reason already holds its words in network order: its bytes are the wire bytes.
  Drop::Reason reason() const {
    Drop::Reason r;
    std::memcpy(&r, bytes_ + kReasonOffset, sizeof r);
    return r;
  }
  void reasonIs(Drop::Reason const& r) { std::memcpy(bytes_ + kReasonOffset, &r, sizeof r); }
  uint8_t dataSize() const { return bytes_[kDataSizeOffset]; }
  // A size beyond the sample area is cut to it.
  void dataSizeIs(uint8_t n) { bytes_[kDataSizeOffset] = n < kPayloadSize ? n : uint8_t(kPayloadSize); }
  uint8_t const* payload() const { return bytes_ + kPayloadOffset; }
  uint8_t* payload() { return bytes_ + kPayloadOffset; }
  // Clears the sample, then copies n bytes (at most the sample size) and sets dataSize.
  void payloadIs(uint8_t const* data, size_t n) {
    n = n < kPayloadSize ? n : kPayloadSize;
    std::memset(payload(), 0, kPayloadSize);
    if (n) std::memcpy(payload(), data, n);
    bytes_[kDataSizeOffset] = static_cast<uint8_t>(n);
  }

  // The 105 bytes as they go into a report packet.
  uint8_t const* bytes() const { return bytes_; }

  // Timestamp, reason and dataSize; the sample is deliberately not compared: this is how the report tables
  // tell that a report did not change.
  bool operator==(Report const& o) const;
  std::string valueToStrep() const;

 private:
  uint8_t bytes_[kSize] = {};
};
static_assert(sizeof(Report) == 105);

std::ostream& operator<<(std::ostream& os, Report const& r);

}  // namespace MirrorOnDrop::Report

namespace MirrorOnDrop {

// The one endpoint through which report packets leave as UDP datagrams. It wraps two platform transmit
// objects, one per address family, and picks one per packet by the destination's family (an unset destination
// goes the IPv6 way). Every call sets all six transmit attributes afresh, both address forms included, so
// nothing of an earlier packet remains. The errno of the latest transmission is kept in txErrno for the
// caller's failure report; nothing is retried here.
//
// Its name is the platform's transmit object's too: where both are in sight, each is named with its
// namespace (MirrorOnDrop::UdpPam, Calyx::UdpPam), never bare.
class UdpPam : public Calyx::Object {
 public:
  UdpPam();

  Calyx::Ptr<Calyx::UdpPam> const& udpPamIp4() const { return udpPamIp4_; }
  Calyx::Ptr<Calyx::UdpPam> const& udpPamIp6() const { return udpPamIp6_; }
  int32_t txErrno() const { return txErrno_; }

  // Sends pkt's bytes from srcIp to dstIp:dstL4Port with dscp as the type-of-service byte, passed on
  // unshifted. True when the platform counted the datagram as transmitted.
  bool sendPacket(Calyx::IpGenAddr const& srcIp, Calyx::IpGenAddr const& dstIp, Calyx::DscpValue dscp,
                  uint16_t dstL4Port, Calyx::Ptr<Calyx::Pkt> const& pkt);

 protected:
  ~UdpPam() override = default;

 private:
  Calyx::Ptr<Calyx::UdpPam> udpPamIp4_;
  Calyx::Ptr<Calyx::UdpPam> udpPamIp6_;
  int32_t txErrno_ = 0;
};

}  // namespace MirrorOnDrop
