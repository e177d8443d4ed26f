#pragma once
// UdpPam: the platform's UDP packet access, transmit side. One object sends datagrams of one address family
// (IPv4, or IPv6 once ipv6EnIs(true)) through one datagram socket of its own, opened on the first transmit.
//
// The caller sets the transmit attributes (source and destination address, type-of-service byte, destination
// port), then hands a packet to txPktIs(): its bytes leave as one datagram at once, and the kernel has copied
// them when the call returns, so the caller may refill the same Pkt. Of the address attributes only the
// object's own family is used: an IPv4 object reads txSrcIpAddr/txDstIpAddr, an IPv6 object
// txSrcIp6Addr/txDstIp6Addr.
//
// - Source address: passed per datagram as IP_PKTINFO / IPV6_PKTINFO ancillary data, so one socket serves any
//   number of sources. An all-zero source lets the kernel choose. A source that is not a local address fails
//   the send.
// - Type of service: written to the socket (IP_TOS, or IPV6_TCLASS) only when it differs from what the socket
//   holds. The byte is used as given; a DSCP must be shifted into its upper six bits by whoever wants that.
// - Outcome: txPkts() counts the datagrams the kernel accepted; errno_() (also txErrno()) is 0 after an
//   accepted datagram and the errno of the failure otherwise (also when the socket could not be opened, or
//   the object is not in transmit mode). A failed transmit is never retried, counted in txErrors() and traced
//   on "Calyx-Udp" (level 1). Accepted is not delivered: a datagram lost further on (a full receive buffer,
//   no route beyond the host) still counts.
// - The socket is non-blocking: when its send buffer is full the transmit fails with EAGAIN rather than
//   stalling the event thread.
// - Changing the family (ipv6EnIs) or leaving transmit mode closes the socket; the next transmit opens a
//   new one.
//
// Limits: transmit only; no scope id, so link-local IPv6 destinations are not reachable; single event thread.

#include <cstdint>

#include "platform/core/Entity.h"
#include "platform/core/SysResult.h"
#include "platform/shm/ScopedFd.h"
#include "platform/types/IpGenAddr.h"
#include "platform/types/Pkt.h"
#include "platform/types/String.h"

namespace Calyx {

class UdpPam : public Object, public Notifier<UdpPam> {
 public:
  static constexpr uint8_t kModeNone = 0;
  static constexpr uint8_t kModeTransmit = 1;

  // Notified only while hasNotificationActive() is true.
  class Reactor : public ReactorBase<UdpPam> {
   public:
    using ReactorBase::ReactorBase;
    // A datagram was accepted: txPkts() moved.
    virtual void handleTxPkts() {}
  };

  explicit UdpPam(String name);

  String const& name() const { return name_; }

  uint8_t mode() const { return mode_; }
  void modeIs(uint8_t mode);
  bool ipv6En() const { return ipv6En_; }
  void ipv6EnIs(bool enabled);
  bool hasNotificationActive() const { return hasNotificationActive_; }
  void hasNotificationActiveIs(bool active) { hasNotificationActive_ = active; }

  Ip4Addr txSrcIpAddr() const { return txSrcIpAddr_; }
  void txSrcIpAddrIs(Ip4Addr a) { txSrcIpAddr_ = a; }
  Ip6Addr const& txSrcIp6Addr() const { return txSrcIp6Addr_; }
  void txSrcIp6AddrIs(Ip6Addr const& a) { txSrcIp6Addr_ = a; }
  Ip4Addr txDstIpAddr() const { return txDstIpAddr_; }
  void txDstIpAddrIs(Ip4Addr a) { txDstIpAddr_ = a; }
  Ip6Addr const& txDstIp6Addr() const { return txDstIp6Addr_; }
  void txDstIp6AddrIs(Ip6Addr const& a) { txDstIp6Addr_ = a; }
  uint8_t txTos() const { return txTos_; }
  void txTosIs(uint8_t tos) { txTos_ = tos; }
  uint16_t txPort() const { return txPort_; }  // destination port, host order
  void txPortIs(uint16_t port) { txPort_ = port; }

  // Sends the packet's bytes as one datagram now; see the header comment for the outcome.
  void txPktIs(Ptr<Pkt> const& pkt);

  uint64_t txPkts() const { return txPkts_; }
  uint64_t txErrors() const { return txErrors_; }
  int errno_() const { return lastErrno_; }
  int txErrno() const { return lastErrno_; }
  // The socket, -1 until the first transmit opens it (for tests and diagnostics).
  int fd() const { return fd_.get(); }

 protected:
  ~UdpPam() override;

 private:
  SysResult<void> socketReady();
  SysResult<void> tosApply();
  void socketClose();
  void txFailed(SysError const& failure);

  String name_;
  uint8_t mode_ = kModeNone;
  bool ipv6En_ = false;
  bool hasNotificationActive_ = false;
  Ip4Addr txSrcIpAddr_;
  Ip6Addr txSrcIp6Addr_;
  Ip4Addr txDstIpAddr_;
  Ip6Addr txDstIp6Addr_;
  uint8_t txTos_ = 0;
  uint16_t txPort_ = 0;

  ScopedFd fd_;
  uint8_t socketTos_ = 0;  // what the socket holds; a new socket starts with 0
  uint64_t txPkts_ = 0;
  uint64_t txErrors_ = 0;
  int lastErrno_ = 0;
};

}  // namespace Calyx
