#pragma once
// The small values every state machine passes around: the feature's constants, the three drop values of the
// chip's Mirror-on-Drop header (packet size, timestamp, reason), that header itself, and the flow key of a
// dropped packet.
//
// Byte order: the chip writes the header's size and timestamp little-endian and every EtherType big-endian; a
// reason is kept in network order in memory and converted only by its accessors.

#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <string>
#include <string_view>

#include "platform/core/Clock.h"
#include "platform/shm/SharedTableOptions.h"
#include "platform/types/ByteOrder.h"
#include "platform/types/Hash.h"
#include "platform/types/IpGenAddr.h"

namespace MirrorOnDrop {

using Calyx::IpGenAddr;

namespace Detail {
class ValueTextReader;
class ValueTextWriter;
}  // namespace Detail

// The feature's constants. No state: any two are equal.
class Constant {
 public:
  static constexpr uint16_t vorlanModEthType() { return 0x1042; }
  static constexpr uint8_t packetSampleSize() { return 80; }
  static constexpr uint16_t tableCapacity() { return 1024; }

  // The parameters of the agent's timer wheel (which runs on the loop the host hands the MountHolder). No
  // state: any two are equal.
  class Timer {
   public:
    static constexpr uint32_t granularity() { return 200; }
    static constexpr uint32_t maxTicks() { return 525600; }

    Timer() = default;
    explicit Timer(std::string_view text);
    std::string valueToStrep() const;
    bool operator==(Timer const&) const { return true; }
  };

  Constant() = default;
  explicit Constant(std::string_view text);
  std::string valueToStrep() const;
  bool operator==(Constant const&) const { return true; }
};

namespace Drop {

// The full size of the dropped packet as the chip reports it.
class PacketSize {
 public:
  constexpr PacketSize() = default;
  constexpr explicit PacketSize(uint16_t value) : value_(value) {}
  explicit PacketSize(std::string_view text);
  constexpr uint16_t value() const { return value_; }
  void valueIs(uint16_t v) { value_ = v; }
  std::string valueToStrep() const { return std::to_string(value_); }
  friend constexpr bool operator==(PacketSize, PacketSize) = default;

 private:
  uint16_t value_ = 0;
};

// The drop time as the chip reports it.
class Timestamp {
 public:
  constexpr Timestamp() = default;
  constexpr explicit Timestamp(uint64_t value) : value_(value) {}
  explicit Timestamp(std::string_view text);
  constexpr uint64_t value() const { return value_; }
  void valueIs(uint64_t v) { value_ = v; }
  std::string valueToStrep() const { return std::to_string(value_); }
  friend constexpr bool operator==(Timestamp, Timestamp) = default;

 private:
  uint64_t value_ = 0;
};

// 128 bits of drop reason as four 32-bit words, each stored big-endian (word 0 first).
class Reason {
 public:
  Reason() = default;
  // Takes host-order words and stores each in network order.
  Reason(uint32_t ctor_part0, uint32_t ctor_part1, uint32_t ctor_part2, uint32_t ctor_part3);
  explicit Reason(std::string_view text);

  // Host-order values of the words.
  uint32_t part0() const;
  uint32_t part1() const;
  uint32_t part2() const;
  uint32_t part3() const;
  // The words as stored (network order).
  uint32_t partBE0() const { return partBE_[0]; }
  uint32_t partBE1() const { return partBE_[1]; }
  uint32_t partBE2() const { return partBE_[2]; }
  uint32_t partBE3() const { return partBE_[3]; }

  // "0x" and 32 lowercase hexadecimal digits, word 0 first.
  std::string stringValue() const;
  std::string valueToStrep() const;
  friend bool operator==(Reason const&, Reason const&) = default;

 private:
  uint32_t partBE_[4] = {};
};

}  // namespace Drop

// The 12-byte header the chip puts in place of the dropped frame's EtherType: packet size (2 bytes
// little-endian), timestamp (8 bytes little-endian), the dropped frame's own EtherType (2 bytes big-endian).
// Kept as the raw bytes.
class Header {
 public:
  static constexpr size_t kSize = 12;

  Header() = default;
  // Copies the 12 header bytes from a mirrored frame.
  explicit Header(uint8_t const* bytes) { std::memcpy(bytes_, bytes, kSize); }
  Header(Drop::PacketSize packetSize, Drop::Timestamp timestamp, uint16_t typeOrLen);
  explicit Header(std::string_view text);

  // Inline: the parser reads them from every frame.
  Drop::PacketSize packetSize() const { return Drop::PacketSize(Calyx::loadLe16(bytes_)); }
  Drop::Timestamp timestamp() const { return Drop::Timestamp(Calyx::loadLe64(bytes_ + 2)); }
  uint16_t typeOrLen() const { return Calyx::loadBe16(bytes_ + 10); }  // host order
  uint8_t const* bytes() const { return bytes_; }

  std::string valueToStrep() const;
  friend bool operator==(Header const&, Header const&) = default;

 private:
  uint8_t bytes_[kSize] = {};
};
static_assert(sizeof(Header) == Header::kSize);

// The five-tuple of a dropped packet: the key of all per-flow state.
class FlowKey {
 public:
  FlowKey() = default;
  FlowKey(uint8_t ipProto, IpGenAddr srcIp, IpGenAddr dstIp, uint16_t srcPort, uint16_t dstPort)
      : ipProto_(ipProto), srcPort_(srcPort), dstPort_(dstPort), srcIp_(srcIp), dstIp_(dstIp) {}
  explicit FlowKey(std::string_view text);

  uint8_t ipProto() const { return ipProto_; }
  IpGenAddr const& srcIp() const { return srcIp_; }
  IpGenAddr const& dstIp() const { return dstIp_; }
  // The addresses themselves, to be filled in place (IpGenAddr::v4Is, v6Is).
  IpGenAddr& srcIp() { return srcIp_; }
  IpGenAddr& dstIp() { return dstIp_; }
  uint16_t srcPort() const { return srcPort_; }
  uint16_t dstPort() const { return dstPort_; }
  void ipProtoIs(uint8_t v) { ipProto_ = v; }
  void srcIpIs(IpGenAddr const& v) { srcIp_ = v; }
  void dstIpIs(IpGenAddr const& v) { dstIp_ = v; }
  void srcPortIs(uint16_t v) { srcPort_ = v; }
  void dstPortIs(uint16_t v) { dstPort_ = v; }

  bool operator==(FlowKey const& o) const {
    return ipProto_ == o.ipProto_ && srcPort_ == o.srcPort_ && dstPort_ == o.dstPort_ && srcIp_ == o.srcIp_ &&
           dstIp_ == o.dstIp_;
  }
  bool operator<(FlowKey const& o) const;
  // Fed, in order: the protocol byte, the 4-byte hashes of the source and destination addresses, both ports.
  uint32_t hash(uint32_t seed = 0) const {
    Calyx::IncrementalHash h(seed);
    hashFeed(h);
    return h.value();
  }
  // Feeds those inputs to h, for keys that hash a flow key and more. Inline, like the address hashes, and fed
  // as 32-bit blocks composed from the fields (the 13 bytes: protocol, the two address hashes and the two
  // ports, each number in host memory order), so that a key's hash is straight-line code: every drop looks
  // its flow up.
  [[gnu::always_inline]] void hashFeed(Calyx::IncrementalHash& h) const {
    using H = Calyx::IncrementalHash;
    uint32_t const src = H::hostBytesLe32(srcIp_.hash()), dst = H::hostBytesLe32(dstIp_.hash());
    uint32_t const ports = uint32_t(H::hostBytesLe16(srcPort_)) | uint32_t(H::hostBytesLe16(dstPort_)) << 16;
    h.addLe32(ipProto_ | src << 8);
    h.addLe32(src >> 24 | dst << 8);
    h.addLe32(dst >> 24 | ports << 8);
    h.add8(static_cast<uint8_t>(ports >> 24));
  }

  // A 64-bit hash of the five fields as words (see Calyx::wideMix), for keys whose hash is free to differ
  // from hash(): the same key gives the same value in every process and run. Its chain is two multiplications
  // long.
  uint64_t wideHash(uint64_t seed) const {
    uint64_t const head = uint64_t(ipProto_) | uint64_t(srcPort_) << 8 | uint64_t(dstPort_) << 24 |
                          uint64_t(srcIp_.af()) << 40 | uint64_t(dstIp_.af()) << 48;
    return Calyx::wideMix(
        Calyx::wideMix(head ^ seed, srcIp_.word(0)) ^ Calyx::wideMix(srcIp_.word(1), dstIp_.word(0)),
        dstIp_.word(1) ^ seed);
  }

  std::string valueToStrep() const { return strep("MirrorOnDrop::FlowKey"); }

  // The five attributes as fields of a text form, for values that hold a flow key and more.
  static FlowKey fieldsRead(Detail::ValueTextReader& r);
  void fieldsWrite(Detail::ValueTextWriter& w) const;

 protected:
  // The text form under another type name (a report key is the same five-tuple).
  std::string strep(std::string_view typeName) const;
  FlowKey(std::string_view text, std::string_view typeName);

 private:
  uint8_t ipProto_ = 0;
  uint16_t srcPort_ = 0;
  uint16_t dstPort_ = 0;
  IpGenAddr srcIp_;
  IpGenAddr dstIp_;
};

std::ostream& operator<<(std::ostream& os, Constant const& v);
std::ostream& operator<<(std::ostream& os, Constant::Timer const& v);
std::ostream& operator<<(std::ostream& os, Drop::PacketSize const& v);
std::ostream& operator<<(std::ostream& os, Drop::Timestamp const& v);
std::ostream& operator<<(std::ostream& os, Drop::Reason const& v);
std::ostream& operator<<(std::ostream& os, Header const& v);
std::ostream& operator<<(std::ostream& os, FlowKey const& v);

// "TCP", "UDP" or "unknown": how traces name a flow's protocol.
std::string_view ipProtoName(uint8_t ipProto);

namespace Detail {
// The feature's shared tables start with room for tableCapacity entries and grow beyond it.
Calyx::SharedTableOptions sharedTableOptions();
}  // namespace Detail

}  // namespace MirrorOnDrop

template <>
struct std::hash<MirrorOnDrop::FlowKey> {
  size_t operator()(MirrorOnDrop::FlowKey const& k) const noexcept { return k.hash(); }
};
